// Starts the task "minimal" and has it add two numbers.
#include <cw/plugin_registrar.h>
#include <tarv/calls/caller.h>
#include <tarv/manager_wrapper.h>
#include <veltra/host/run.h>

#include <QCoreApplication>
#include <iostream>

#include "add.h"

struct Application : cw::Plugin {
  explicit Application(cw::PluginRegistrar* registrar)
      : manager(tarv::ManagerWrapper::Create(registrar)),
        caller(manager ? manager->CreateIpcClient("minimal") : nullptr,
               tarv::CallerOptions().TaskName("minimal")) {
    caller.Call(kAdd, {20, 22}).Then([](const tarv::Outcome<std::int32_t>& sum) {
      if (sum) {
        std::cout << "20 + 22 = " << *sum << '\n';
      } else {
        std::cerr << sum.GetError().what() << '\n';
      }
      QCoreApplication::exit(sum ? EXIT_SUCCESS : EXIT_FAILURE);
    });
  }
  std::unique_ptr<tarv::ManagerWrapper> manager;
  tarv::Caller caller;
};

void RegisterApplication(FlutterVeltraPluginContext* context) {
  auto* registrar = cw::PluginRegistrarManager::GetInstance().GetRegistrarImpl(context);
  registrar->AddPlugin(std::make_shared<Application>(registrar));
}

int main(int argc, char** argv) {
  return veltra::host::RunApplication(argc, argv, {RegisterApplication});
}
