// The task in a process of its own.
#include "words_task.h"

#include <cw/plugin_registrar.h>
#include <tarv/manager_wrapper.h>
#include <veltra/host/run.h>

#include <cstdlib>
#include <memory>
#include <optional>

namespace {

class Process : public cw::Plugin {
 public:
  explicit Process(cw::PluginRegistrar* registrar)
      : manager_(tarv::ManagerWrapper::Create(registrar)) {
    const auto server = manager_ ? manager_->CreateRpcServer() : nullptr;
    if (!server) {
      std::exit(EXIT_FAILURE);  // the log has said why
    }
    task_.emplace(server);
  }

 private:
  std::unique_ptr<tarv::ManagerWrapper> manager_;
  std::optional<words::WordsTask> task_;
};

void Register(FlutterVeltraPluginContext* context) {
  auto* registrar = cw::PluginRegistrarManager::GetInstance().GetRegistrarImpl(context);
  registrar->AddPlugin(std::make_shared<Process>(registrar));
}

}  // namespace

int main(int argc, char** argv) { return veltra::host::RunTask(argc, argv, {Register}); }
