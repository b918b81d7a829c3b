// The task "awkward": one of its callbacks throws, or sleeps, as the variable AWKWARD says
// ("OnRequest throws"); whoever runs its event loop goes on, as the task's own main() may.
#include <quarn/dispatcher.h>
#include <tarv/manager_wrapper.h>

#include <QCoreApplication>
#include <QEventLoop>
#include <memory>
#include <sstream>
#include <stdexcept>
#include <string>

#include "deed.h"

namespace {

class Awkward {
 public:
  Awkward() {
    std::istringstream(qEnvironmentVariable("AWKWARD").toStdString()) >> place_ >> deed_;
    server_->OnConnected([this](const auto& /*error*/) { Happen("OnConnected"); });
    server_->OnNotify("note", [this](const auto& /*note*/) { Happen("OnNotify"); });
    server_->OnRequest("echo",
                       [this](const std::string& /*method*/, const cw::EncodableValue& params,
                              std::unique_ptr<vorpc::IReply>&& reply) {
                         reply->SendResult(params);
                         Happen("OnRequest");
                       });
    server_->OnRequest("thrown", [this](const auto& /*method*/, const auto& /*params*/,
                                        auto&& reply) { reply->SendResult(thrown_); });
    server_->Run();
  }

  [[noreturn]] void RunForEver() {
    for (;;) {
      try {
        QCoreApplication::processEvents(QEventLoop::WaitForMoreEvents);
      } catch (const std::runtime_error&) {
        ++thrown_;
      }
    }
  }

 private:
  void Happen(const std::string& place) {
    if (place != place_ || has_happened_) {
      return;
    }
    has_happened_ = true;
    tarv::test::Do(deed_ == "throws" ? tarv::test::Deed::kThrows : tarv::test::Deed::kSleeps);
  }

  std::string place_;
  std::string deed_;
  bool has_happened_ = false;
  int thrown_ = 0;
  const std::unique_ptr<tarv::ManagerWrapper> manager_ =
      tarv::ManagerWrapper::Create(quarn::IDispatcher::CreateEmpty(), std::string(LIBRARY_FOLDER));
  const std::shared_ptr<vorpc::IServer> server_ = manager_->CreateRpcServer();
};

}  // namespace

int main(int argc, char** argv) {
  const QCoreApplication application(argc, argv);
  Awkward().RunForEver();
}
