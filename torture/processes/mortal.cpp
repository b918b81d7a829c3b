// The task "mortal": dies at the step, and in the way, that the variable MORTAL names ("in-handler
// kill"). Without the variable it lives.

#include <cw/plugin.h>
#include <cw/plugin_registrar.h>
#include <sys/socket.h>
#include <tarv/manager_wrapper.h>
#include <veltra/host/run.h>

#include <QTimer>
#include <sstream>
#include <string>
#include <utility>

#include "deaths.h"

namespace {

using Reply = std::unique_ptr<vorpc::IReply>;

struct Plan {
  std::string step;
  std::string death;
};

const Plan& GetPlan() {
  static const Plan plan = [] {
    std::istringstream words(qEnvironmentVariable("MORTAL").toStdString());
    Plan read;
    words >> read.step >> read.death;
    return read;
  }();
  return plan;
}

void Reach(const std::string& step) {
  if (GetPlan().step == step) {
    tarv::test::Die(GetPlan().death);
  }
}

// Steps at which there is no server yet that could go on afterwards.
void ConverseByHand() {
  constexpr int kSocket = 3;
  constexpr int kCannotGoOn = 7;
  const int connection = accept(kSocket, nullptr, nullptr);
  Reach("accepted");
  char next = 0;
  while (next != '\n' && read(connection, &next, 1) == 1) {
  }
  Reach("asked");
  const std::string half = R"({"data":"DQMHB2pzb25ycGMHAz)";
  [[maybe_unused]] const auto written = write(connection, half.data(), half.size());
  Reach("half-written");
  _exit(kCannotGoOn);
}

class Mortal final : public cw::Plugin {
 public:
  explicit Mortal(cw::PluginRegistrar* registrar)
      : manager_(tarv::ManagerWrapper::Create(registrar)), server_(manager_->CreateRpcServer()) {
    server_->OnConnected([this](const auto& /*error*/) {
      Reach("connecting");
      QTimer::singleShot(0, &later_, [] { Reach("connected"); });
    });
    server_->OnRequest("echo", [](const std::string& /*method*/, const cw::EncodableValue& params,
                                  Reply&& reply) { reply->SendResult(params); });
    server_->OnRequest("strike",
                       [this](const std::string& /*method*/, const cw::EncodableValue& params,
                              Reply&& reply) { Strike(params, *reply); });
    server_->OnNotify("strike", [](const auto& /*notification*/) { Reach("in-notification"); });
    server_->OnNotify("nap", [](const auto& notification) {
      usleep(static_cast<unsigned>(notification.params.AsInt64().value_or(0)));
    });
    server_->Run();
  }
  ~Mortal() override { Reach("at-stop"); }

 private:
  void Strike(const cw::EncodableValue& params, vorpc::IReply& reply) {
    Reach("in-handler");
    if (GetPlan().step == "with-queue") {
      // More than the socket takes while the application sleeps.
      constexpr std::size_t kSize = std::size_t{1} << 20;
      constexpr int kCount = 8;
      for (int i = 0; i < kCount; ++i) {
        server_->SendNotify("queued", std::string(kSize, 'q'));
      }
      Reach("with-queue");
    }
    reply.SendResult(params);
    Reach("after-answer");
  }

  std::unique_ptr<tarv::ManagerWrapper> manager_;
  std::shared_ptr<vorpc::IServer> server_;
  QObject later_;
};

void MortalRegisterWithRegistrar(FlutterVeltraPluginContext* context) {
  auto* const registrar = cw::PluginRegistrarManager::GetInstance().GetRegistrarImpl(context);
  registrar->AddPlugin(std::make_shared<Mortal>(registrar));
}

}  // namespace

int main(int argc, char** argv) {
  Reach("at-start");
  if (GetPlan().step == "accepted" || GetPlan().step == "asked" ||
      GetPlan().step == "half-written") {
    ConverseByHand();
  }
  return veltra::host::RunTask(argc, argv, {MortalRegisterWithRegistrar});
}
