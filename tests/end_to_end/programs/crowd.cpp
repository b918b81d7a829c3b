// An application with three tasks "worker". It waits until another one like it has come so far,
// talks to each of its tasks, prints "task PROCESS" for each, and ends with 0 when every
// answer was its own.

#include <cw/plugin.h>
#include <cw/plugin_registrar.h>
#include <tarv/manager_wrapper.h>
#include <unistd.h>
#include <veltra/host/run.h>

#include <QCoreApplication>
#include <QTimer>
#include <array>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <iterator>
#include <string>
#include <vector>

namespace {

constexpr std::size_t kTasks = 3;
constexpr int kRequests = 200;
constexpr std::ptrdiff_t kApplications = 2;

std::filesystem::path MeetingPoint() {
  return std::filesystem::path(std::getenv("XDG_RUNTIME_DIR")) / "crowd";
}

class Crowd final : public cw::Plugin {
 public:
  explicit Crowd(cw::PluginRegistrar* registrar)
      : manager_(tarv::ManagerWrapper::Create(registrar)) {
    for (std::size_t i = 0; i < kTasks; ++i) {
      clients_.push_back(manager_->CreateIpcClient("worker"));
      clients_.back()->OnConnected([this](const auto& error) { OnConnected(!error); });
      clients_.back()->OnNotify("early", [](const auto& /*notification*/) {});
      clients_.back()->OnNotify("said", [](const auto& /*notification*/) {});
      clients_.back()->Run();
    }
    constexpr int kLookMs = 10;
    QObject::connect(&waiting_, &QTimer::timeout, &waiting_, [this] { TalkIfAllAreThere(); });
    waiting_.setInterval(kLookMs);
  }

 private:
  void OnConnected(bool success) {
    Check(success, "a task does not connect");
    if (++connected_ == kTasks) {
      std::filesystem::create_directories(MeetingPoint());
      std::ofstream(MeetingPoint() / std::to_string(getpid())) << "here\n";
      waiting_.start();
    }
  }

  void TalkIfAllAreThere() {
    const std::filesystem::directory_iterator here(MeetingPoint());
    if (std::distance(begin(here), end(here)) < kApplications) {
      return;
    }
    waiting_.stop();
    for (std::size_t task = 0; task < kTasks; ++task) {
      for (int i = 0; i < kRequests; ++i) {
        TalkTo(task, std::to_string(getpid()) + " task " + std::to_string(task) + " message " +
                         std::to_string(i));
      }
      Expect(task, "starter", {}, getpid());
      clients_[task]->SendRequest("process", {}, [this](const vorpc::Message::Response& response) {
        std::cout << "task " << response.GetResult()->AsInt64().value_or(0) << "\n";
        Done();
      });
    }
  }

  void TalkTo(std::size_t task, const std::string& text) {
    said_[task].emplace_back(text);
    clients_[task]->SendNotify("say", text);
    Expect(task, "echo", text, text);
    Expect(task, "heard", {}, said_[task]);
  }

  void Expect(std::size_t task, const char* method, const cw::EncodableValue& params,
              const cw::EncodableValue& expected) {
    ++expected_;
    clients_[task]->SendRequest(
        method, params, [this, expected](const vorpc::Message::Response& response) {
          Check(response.HasResult() && *response.GetResult() == expected, "a foreign answer");
          ++answered_;
          Done();
        });
  }

  void Done() {
    ++done_;
    if (done_ == expected_ + static_cast<int>(kTasks)) {
      std::cout.flush();
      QCoreApplication::exit(answered_ == expected_ ? EXIT_SUCCESS : EXIT_FAILURE);
    }
  }

  static void Check(bool condition, const char* what) {
    if (!condition) {
      std::cerr << what << std::endl;
      QCoreApplication::exit(EXIT_FAILURE);
    }
  }

  std::unique_ptr<tarv::ManagerWrapper> manager_;
  std::vector<std::shared_ptr<vorpc::IClient>> clients_;
  std::array<cw::EncodableList, kTasks> said_;
  QTimer waiting_;
  std::size_t connected_ = 0;
  int expected_ = 0;
  int answered_ = 0;
  int done_ = 0;
};

void CrowdRegisterWithRegistrar(FlutterVeltraPluginContext* context) {
  auto* const registrar = cw::PluginRegistrarManager::GetInstance().GetRegistrarImpl(context);
  registrar->AddPlugin(std::make_shared<Crowd>(registrar));
}

}  // namespace

int main(int argc, char** argv) {
  return veltra::host::RunApplication(argc, argv, {CrowdRegisterWithRegistrar});
}
