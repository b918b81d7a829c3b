// Starts the task "minimal" and has it add two numbers.
#include <cw/plugin_registrar.h>
#include <tarv/manager_wrapper.h>
#include <veltra/host/run.h>

#include <QCoreApplication>
#include <iostream>

struct Application : cw::Plugin {
  explicit Application(cw::PluginRegistrar* registrar)
      : manager(tarv::ManagerWrapper::Create(registrar)),
        client(manager ? manager->CreateIpcClient("minimal") : nullptr) {
    if (!client) {
      std::exit(EXIT_FAILURE);  // the log has said why
    }
    client->SendRequest("add", std::vector<std::int32_t>{20, 22}, [](const auto& response) {
      if (response.IsError()) {
        std::cerr << *response.GetError() << '\n';
      }
      if (response.HasResult()) {
        std::cout << "20 + 22 = " << *response.GetResult() << '\n';
      }
      QCoreApplication::exit(response.IsError());
    });
    client->Run();
  }
  std::unique_ptr<tarv::ManagerWrapper> manager;
  std::shared_ptr<vorpc::IClient> client;
};

void RegisterApplication(FlutterVeltraPluginContext* context) {
  auto* registrar = cw::PluginRegistrarManager::GetInstance().GetRegistrarImpl(context);
  registrar->AddPlugin(std::make_shared<Application>(registrar));
}

int main(int argc, char** argv) {
  return veltra::host::RunApplication(argc, argv, {RegisterApplication});
}
