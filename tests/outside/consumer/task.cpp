// The task "sum": adds two numbers.
#include <cw/plugin_registrar.h>
#include <tarv/manager_wrapper.h>
#include <veltra/host/run.h>

struct Task : cw::Plugin {
  explicit Task(cw::PluginRegistrar* registrar)
      : manager(tarv::ManagerWrapper::Create(registrar)),
        server(manager ? manager->CreateRpcServer() : nullptr) {
    if (!server) {
      std::exit(EXIT_FAILURE);  // the log has said why
    }
    server->OnRequest("add", [](const auto&, const cw::EncodableValue& params, auto reply) {
      const auto* numbers = std::get_if<std::vector<std::int32_t>>(&params);
      if (!numbers || numbers->size() != 2) {
        reply->SendError(-32602, "not two integers", {});
        return;
      }
      reply->SendResult((*numbers)[0] + (*numbers)[1]);
    });
    server->Run();
  }
  std::unique_ptr<tarv::ManagerWrapper> manager;
  std::shared_ptr<vorpc::IServer> server;
};

void RegisterTask(FlutterVeltraPluginContext* context) {
  auto* registrar = cw::PluginRegistrarManager::GetInstance().GetRegistrarImpl(context);
  registrar->AddPlugin(std::make_shared<Task>(registrar));
}

int main(int argc, char** argv) { return veltra::host::RunTask(argc, argv, {RegisterTask}); }
