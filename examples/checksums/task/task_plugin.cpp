#include "task_plugin.h"

#include <cw/plugin.h>
#include <cw/plugin_registrar.h>
#include <tarv/calls/service.h>
#include <tarv/calls/workers.h>
#include <tarv/manager_wrapper.h>

#include <chrono>
#include <cstdlib>
#include <iostream>
#include <memory>
#include <string>
#include <system_error>

#include "../names.h"
#include "hasher.h"

namespace checksums {
namespace {

using Clock = std::chrono::steady_clock;

// What an eye can follow.
constexpr std::chrono::milliseconds kStepInterval{100};

// On one of the workers. A request that the application has cancelled ends at the next slice.
Bytes Hash(const Bytes& path, const tarv::Running<Step>& running) {
  auto reported = Clock::now();
  try {
    return HashFile(std::string(path.begin(), path.end()), [&](std::int64_t bytes) {
      if (Clock::now() - reported >= kStepInterval) {
        reported = Clock::now();
        running.Progress({bytes});
      }
      return !running.IsCancelled();
    });
  } catch (const std::system_error& error) {
    throw tarv::RequestError(kCannotRead, error.code().message(),
                             cw::EncodableMap{{"errno", error.code().value()}});
  }
}

class TaskPlugin : public cw::Plugin {
 public:
  explicit TaskPlugin(cw::PluginRegistrar* registrar)
      : manager_(tarv::ManagerWrapper::Create(registrar)),
        service_(tarv::Service::For(manager_ ? manager_->CreateRpcServer() : nullptr)) {}

  // False when the library cannot be used.
  bool Serve() {
    if (!service_) {
      return false;
    }
    service_->On(kHash, workers_, Hash);
    service_->Run();
    return true;
  }

 private:
  // Objects go before the manager that made them.
  std::unique_ptr<tarv::ManagerWrapper> manager_;
  std::shared_ptr<tarv::Service> service_;
  tarv::Workers workers_{1};  // files come from one disk, one after another
};

}  // namespace
}  // namespace checksums

void ChecksumsTaskPluginRegisterWithRegistrar(FlutterVeltraPluginContext* context) {
  auto* const registrar = cw::PluginRegistrarManager::GetInstance().GetRegistrarImpl(context);
  const auto plugin = std::make_shared<checksums::TaskPlugin>(registrar);
  if (!plugin->Serve()) {
    std::cerr << "checksums task: libtarv.so cannot be used; is this program started as a task?\n";
    std::exit(EXIT_FAILURE);
  }
  registrar->AddPlugin(plugin);
}
