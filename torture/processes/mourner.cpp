// An application that dies:
//
//   mourner STEP DEATH [SIGNAL]
//
// It talks to the task "mortal", and at the step it sends the signal (a number) to the task, if one is
// given, and dies itself. Where it is only stopped it goes on, and ends with 0 when each of its
// requests has ended once.

#include <quarn/dispatcher.h>
#include <tarv/manager_wrapper.h>

#include <QCoreApplication>
#include <QTimer>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <string>

#include "deaths.h"

namespace {

constexpr int kRequests = 50;

class Mourner {
 public:
  Mourner(std::string step, std::string death, int signal)
      : step_(std::move(step)), death_(std::move(death)), signal_(signal) {
    manager_ = tarv::ManagerWrapper::Create(quarn::IDispatcher::CreateEmpty(),
                                            std::string(LIBRARY_FOLDER));
    client_ = manager_->CreateIpcClient("mortal");
    Reach("starting");
    client_->OnConnected([this](const auto& /*error*/) { Reach("connected"); });
    client_->Run();
    QTimer::singleShot(0, &later_, [this] { Talk(); });
  }

 private:
  void Talk() {
    Reach("started");
    if (step_ == "half-sent") {
      constexpr int kNapUs = 300'000;
      constexpr std::size_t kLarge = std::size_t{16} << 20;
      client_->SendNotify("nap", kNapUs);
      Ask("echo", std::string(kLarge, 'l'));
    }
    for (int i = 0; i < kRequests; ++i) {
      Ask("echo", i);
    }
    QTimer::singleShot(kPauseMs, &later_, [this] { Reach("half-sent"); });
    QTimer::singleShot(0, &later_, [this] { Reach("asking"); });
  }

  void Ask(const std::string& method, const cw::EncodableValue& params) {
    ++asked_;
    client_->SendRequest(method, params, [this](const vorpc::Message::Response& /*response*/) {
      Reach("answered");
      if (++ended_ == asked_) {
        QTimer::singleShot(kPauseMs, &later_, [this] { Leave(); });
      }
    });
  }

  void Leave() {
    client_.reset();
    Reach("stopping");
    manager_.reset();
    Reach("releasing");
    QCoreApplication::exit(ended_ == asked_ ? EXIT_SUCCESS : EXIT_FAILURE);
  }

  void Reach(const std::string& step) {
    if (step != step_ || has_died_) {
      return;
    }
    has_died_ = true;
    if (signal_ != 0) {
      SignalTheTask();
    }
    tarv::test::Die(death_);
  }

  void SignalTheTask() const {
    std::ifstream list("/proc/self/task/" + std::to_string(getpid()) + "/children");
    for (int child = 0; list >> child;) {
      kill(child, signal_);
    }
  }

  static constexpr int kPauseMs = 20;

  const std::string step_;
  const std::string death_;
  const int signal_;
  bool has_died_ = false;
  int asked_ = 0;
  int ended_ = 0;
  QObject later_;
  std::unique_ptr<tarv::ManagerWrapper> manager_;
  std::shared_ptr<vorpc::IClient> client_;
};

}  // namespace

int main(int argc, char** argv) {
  const QCoreApplication application(argc, argv);
  const Mourner mourner(argc > 1 ? argv[1] : "", argc > 2 ? argv[2] : "",
                        argc > 3 ? std::atoi(argv[3]) : 0);
  return QCoreApplication::exec();
}
