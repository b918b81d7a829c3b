// The task "leaver": a plug-in that destroys its server and its manager at the moment and in the
// order that the variable LEAVER names ("request server-first"), and goes on. The file "left" in
// XDG_RUNTIME_DIR says that it came to its end in good order.

#include <cw/plugin.h>
#include <cw/plugin_registrar.h>
#include <tarv/manager_wrapper.h>
#include <veltra/host/run.h>

#include <QCoreApplication>
#include <QTimer>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <utility>

namespace {

bool has_left = false;
bool was_called_afterwards = false;

struct Plan {
  std::string moment;
  std::string order;
};

Plan ReadPlan() {
  std::istringstream words(qEnvironmentVariable("LEAVER").toStdString());
  Plan plan;
  words >> plan.moment >> plan.order;
  return plan;
}

class Leaver final : public cw::Plugin {
 public:
  explicit Leaver(cw::PluginRegistrar* registrar)
      : manager_(tarv::ManagerWrapper::Create(registrar)), server_(manager_->CreateRpcServer()) {
    QObject::connect(&quit_, &QTimer::timeout, qApp, &QCoreApplication::quit);
    server_->OnConnected([this](const auto& /*error*/) { LeaveAt("connected"); });
    server_->OnNotify("leave", [this](const auto& /*notification*/) { LeaveAt("notification"); });
    server_->OnRequest("leave",
                       [this](const std::string& /*method*/, const cw::EncodableValue& /*params*/,
                              std::unique_ptr<vorpc::IReply>&& reply) {
                         LeaveAt("request");
                         reply->SendResult("too late, or not");
                       });
    server_->OnConnected([](const auto& /*error*/) { NoteCall(); });
    server_->OnNotify("leave", [](const auto& /*notification*/) { NoteCall(); });
    LeaveAt("before-run");
    if (server_) {
      server_->Run();
    }
    timer_.setSingleShot(true);
    QObject::connect(&timer_, &QTimer::timeout, &timer_, [this] { LeaveAt("timer"); });
    timer_.start(0);
  }

  ~Leaver() override { LeaveAt("end"); }

 private:
  // A second subscriber, which shall hear nothing once the first has let the server go.
  static void NoteCall() { was_called_afterwards = was_called_afterwards || has_left; }

  void LeaveAt(const std::string& moment) {
    if (moment != plan_.moment || has_left) {
      return;
    }
    has_left = true;
    if (plan_.order == "server-first") {
      server_.reset();
      manager_.reset();
    } else {
      manager_.reset();
      server_.reset();
    }
    constexpr int kGoOnMs = 50;
    quit_.start(kGoOnMs);
  }

  const Plan plan_ = ReadPlan();
  std::unique_ptr<tarv::ManagerWrapper> manager_;
  std::shared_ptr<vorpc::IServer> server_;
  QTimer timer_;
  QTimer quit_;
};

void LeaverRegisterWithRegistrar(FlutterVeltraPluginContext* context) {
  auto* const registrar = cw::PluginRegistrarManager::GetInstance().GetRegistrarImpl(context);
  registrar->AddPlugin(std::make_shared<Leaver>(registrar));
}

}  // namespace

int main(int argc, char** argv) {
  const int status = veltra::host::RunTask(argc, argv, {LeaverRegisterWithRegistrar});
  const std::filesystem::path folder(std::getenv("XDG_RUNTIME_DIR"));
  std::ofstream(folder / "left.new")
      << (has_left ? "left" : "stayed") << (was_called_afterwards ? ", called afterwards" : "")
      << "\n";
  std::filesystem::rename(folder / "left.new", folder / "left");
  return status;
}
