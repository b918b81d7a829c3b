// An application that leaves with traffic under way:
//
//   departing PLACE MANNER HOLDER
//
// In the callback PLACE it leaves in this MANNER, and HOLDER says who holds its objects then. With the
// place "never" it stays until its task has left, and ends with 0 when the task has left as one should
// and each request has ended once.
#include <quarn/dispatcher.h>
#include <tarv/manager_wrapper.h>
#include <tarv/task_client.h>

#include <QCoreApplication>
#include <memory>
#include <string>
#include <utility>

#include "departures.h"

namespace {

using tarv::torture::Depart;
using tarv::torture::kDeparted;
using vorpc::Message;
using Holder =
    tarv::torture::Holder<std::unique_ptr<tarv::ManagerWrapper>, std::shared_ptr<vorpc::IClient>>;

// Requests that are under way at any time, and how many are answered before something happens.
constexpr int kUnderWay = 20;
constexpr int kSome = 30;

class Departing {
 public:
  Departing(std::string place, std::string manner, const std::string& holder)
      : place_(std::move(place)),
        manner_(std::move(manner)),
        held_(Holder::Make(tarv::ManagerWrapper::Create(quarn::IDispatcher::CreateEmpty(),
                                                        std::string(LIBRARY_FOLDER)),
                           holder)) {}

  void Begin() {
    held_.end = held_.manager->CreateIpcClient("departing");
    vorpc::IClient& client = *held_.end;
    client.OnConnected([this](const auto& /*error*/) { Reach("OnConnected"); });
    client.OnNotify("tick", [this](const auto& /*note*/) { Reach("OnNotify"); });
    client.OnDisconnected([this](const auto& /*error*/) { Reach("OnDisconnected"); });
    dynamic_cast<tarv::ITaskClient&>(client).OnManagerEnded(
        [this](tarv::EndedManager /*which*/) { Reach("OnManagerEnded"); });
    for (int i = 0; i < kUnderWay; ++i) {
      Ask();
    }
    client.Run();
  }

 private:
  void Ask() {
    ++asked_;
    held_.end->SendRequest("echo", asked_, [this](const Message::Response& response) {
      Holder::ExpectThere();
      ++answered_;
      if (const Message::Error* const error = response.GetError()) {
        Reach("a failed response");
        LeaveAfterTheLast(*error);
      } else {
        Reach("a response");
        GoOn();
      }
    });
  }

  void GoOn() {
    if (answered_ == kSome && place_ == "OnManagerEnded") {
      held_.manager.reset();
    } else if (answered_ == kSome && place_ != "never") {
      held_.end->SendNotify("leave", "exit");
    }
    Ask();
    held_.end->SendNotify("tock", {});
  }

  void Reach(const std::string& place) {
    Holder::ExpectThere();
    if (place == place_ && !has_departed_) {
      has_departed_ = true;
      Depart(manner_);
    }
  }

  // The error tells how the task has left.
  void LeaveAfterTheLast(const Message::Error& error) const {
    if (answered_ == asked_ && place_ == "never") {
      const std::string status = "exited with status " + std::to_string(kDeparted);
      const bool has_task_left = error.message.find(status) != std::string::npos;
      QCoreApplication::exit(has_task_left ? EXIT_SUCCESS : EXIT_FAILURE);
    }
  }

  const std::string place_;
  const std::string manner_;
  Holder& held_;
  bool has_departed_ = false;
  int asked_ = 0;
  int answered_ = 0;
};

}  // namespace

int main(int argc, char** argv) {
  const QCoreApplication application(argc, argv);
  static Departing departing(argc > 1 ? argv[1] : "never", argc > 2 ? argv[2] : "",
                             argc > 3 ? argv[3] : "");
  departing.Begin();
  return QCoreApplication::exec();
}
