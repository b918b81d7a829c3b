// The task of the conversation under failing system calls.

#include <RuntimeManager/RuntimeDispatcher.h>
#include <cw/plugin.h>
#include <cw/plugin_registrar.h>
#include <tarv/manager_wrapper.h>
#include <veltra/host/run.h>

#include <cstdio>
#include <memory>
#include <string>

namespace {

class Peer final : public cw::Plugin {
 public:
  explicit Peer(cw::PluginRegistrar* registrar)
      : manager_(tarv::ManagerWrapper::Create(registrar)), server_(manager_->CreateRpcServer()) {
    server_->OnRequest("echo", [](const std::string& /*method*/, const cw::EncodableValue& params,
                                  auto&& reply) { reply->SendResult(params); });
    server_->OnNotify("say", [this](const vorpc::Message::Notification& notification) {
      std::fputs("the task says something\n", stderr);
      server_->SendNotify("said", notification.params);
    });
    RuntimeManager::RuntimeDispatcher::instance()->registerIntent(
        "torture-calls",
        [](const QJsonObject& parameters, const auto& reply) { reply(parameters); });
    server_->Run();
  }

 private:
  std::unique_ptr<tarv::ManagerWrapper> manager_;
  std::shared_ptr<vorpc::IServer> server_;
};

void PeerRegisterWithRegistrar(FlutterVeltraPluginContext* context) {
  auto* const registrar = cw::PluginRegistrarManager::GetInstance().GetRegistrarImpl(context);
  registrar->AddPlugin(std::make_shared<Peer>(registrar));
}

}  // namespace

int main(int argc, char** argv) {
  return veltra::host::RunTask(argc, argv, {PeerRegisterWithRegistrar});
}
