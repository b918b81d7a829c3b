// The task of the conversation under failing system calls.

#include <cw/plugin.h>
#include <cw/plugin_registrar.h>
#include <tarv/manager_wrapper.h>
#include <veltra/host/run.h>

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
      server_->SendNotify("said", notification.params);
    });
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
