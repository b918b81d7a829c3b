// The task of the soak: does whatever it is asked for, its own death among it.

#include <cw/plugin.h>
#include <cw/plugin_registrar.h>
#include <poll.h>
#include <signal.h>
#include <sys/socket.h>
#include <tarv/calls/service.h>
#include <tarv/manager_wrapper.h>
#include <unistd.h>
#include <veltra/host/run.h>

#include <QCoreApplication>
#include <cerrno>
#include <chrono>
#include <iostream>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "methods.h"

namespace soak {
namespace {

void HangUp() {
  constexpr int kMostDescriptors = 64;
  for (int descriptor = 3; descriptor < kMostDescriptors; ++descriptor) {
    shutdown(descriptor, SHUT_RDWR);
  }
}

// Into each connection; until it ends, because nobody holds so long a line.
void WriteALineWithoutAnEnd() {
  constexpr int kMostDescriptors = 64;
  constexpr std::size_t kMost = std::size_t{16} << 20;
  const std::string piece(std::size_t{64} << 10, 'x');
  for (int descriptor = 3; descriptor < kMostDescriptors; ++descriptor) {
    pollfd ready{descriptor, POLLOUT, 0};
    for (std::size_t written = 0; written < kMost && poll(&ready, 1, 1000) == 1;) {
      const ssize_t more =
          send(descriptor, piece.data(), piece.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
      if (more < 0 && errno != EAGAIN) {
        break;
      }
      written += more > 0 ? static_cast<std::size_t>(more) : 0;
    }
  }
}

void Die(const std::string& how) {
  std::cerr << "dies as told: " << how << std::endl;
  if (how == "exit 0" || how == "exit 1") {
    QCoreApplication::exit(how == "exit 1" ? 1 : 0);
  } else if (how == "segv") {
    signal(SIGSEGV, SIG_DFL);
    raise(SIGSEGV);
  } else if (how == "kill") {
    raise(SIGKILL);
  } else if (how == "endless line") {
    WriteALineWithoutAnEnd();
  } else {
    HangUp();
  }
}

class Task final : public cw::Plugin {
 public:
  explicit Task(cw::PluginRegistrar* registrar)
      : manager_(tarv::ManagerWrapper::Create(registrar)), server_(manager_->CreateRpcServer()) {
    service_->On(kEcho, [](std::string text) { return text; });
    service_->On(
        kFill, [](std::int64_t size) { return std::string(static_cast<std::size_t>(size), 'x'); });
    service_->On(kSteps,
                 [](std::int64_t steps, const tarv::Request<std::int64_t, std::int64_t>& request) {
                   for (std::int64_t step = 1; step <= steps; ++step) {
                     request.Progress(step);
                   }
                   request.Answer(steps);
                 });
    service_->On(kKeep, [this](const tarv::Request<void>& request) { Keep(request); });
    service_->On(
        kNap, [](std::int64_t ms) { std::this_thread::sleep_for(std::chrono::milliseconds(ms)); });
    service_->On(kDie, [](const std::string& how) { Die(how); });
    service_->On(kMeasure, [] { return MeasureSelf(); });
    server_->OnNotify(kNote, [](const vorpc::Message::Notification& /*note*/) {});
    server_->OnNotify(kFlood, [this](const vorpc::Message::Notification& flood) {
      for (std::int64_t i = 0; i < flood.params.AsInt64().value_or(0); ++i) {
        server_->SendNotify(kDrop, i);
      }
    });
    service_->Run();
  }

 private:
  void Keep(const tarv::Request<void>& request) {
    const std::size_t number = ++last_kept_;
    kept_.emplace(number, request);
    request.OnCancel([this, number] { kept_.erase(number); });
  }

  std::unique_ptr<tarv::ManagerWrapper> manager_;
  std::shared_ptr<vorpc::IServer> server_;
  std::shared_ptr<tarv::Service> service_ = tarv::Service::For(server_);
  std::size_t last_kept_ = 0;
  std::map<std::size_t, tarv::Request<void>> kept_;
};

void RegisterTask(FlutterVeltraPluginContext* context) {
  auto* const registrar = cw::PluginRegistrarManager::GetInstance().GetRegistrarImpl(context);
  registrar->AddPlugin(std::make_shared<Task>(registrar));
}

}  // namespace
}  // namespace soak

int main(int argc, char** argv) {
  soak::LeaveOutLargeBlocks();
  return veltra::host::RunTask(argc, argv, {soak::RegisterTask});
}
