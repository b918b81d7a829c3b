// The task "minimal": adds two numbers.
#include <cw/plugin_registrar.h>
#include <tarv/calls/service.h>
#include <tarv/manager_wrapper.h>
#include <veltra/host/run.h>

#include "add.h"

struct Task : cw::Plugin {
  explicit Task(cw::PluginRegistrar* registrar)
      : manager(tarv::ManagerWrapper::Create(registrar)),
        service(tarv::Service::For(manager ? manager->CreateRpcServer() : nullptr)) {
    if (!service) {
      std::exit(EXIT_FAILURE);  // the log has said why
    }
    service->On(kAdd, [](Numbers numbers) { return numbers.a + numbers.b; });
    service->Run();
  }
  std::unique_ptr<tarv::ManagerWrapper> manager;
  std::shared_ptr<tarv::Service> service;
};

void RegisterTask(FlutterVeltraPluginContext* context) {
  auto* registrar = cw::PluginRegistrarManager::GetInstance().GetRegistrarImpl(context);
  registrar->AddPlugin(std::make_shared<Task>(registrar));
}

int main(int argc, char** argv) { return veltra::host::RunTask(argc, argv, {RegisterTask}); }
