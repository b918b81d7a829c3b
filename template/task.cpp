// The task: a process of its own, which answers the application's requests.
#include <cw/plugin_registrar.h>
#include <tarv/manager_wrapper.h>
#include <veltra/host/run.h>

#include <cstdlib>
#include <memory>
#include <optional>

#include "adder.h"

namespace {

class Task : public cw::Plugin {
 public:
  explicit Task(cw::PluginRegistrar* registrar)
      : manager_(tarv::ManagerWrapper::Create(registrar)) {
    const auto server = manager_ ? manager_->CreateRpcServer() : nullptr;
    if (!server) {
      std::exit(EXIT_FAILURE);  // the log has said why
    }
    adder_.emplace(server);
  }

 private:
  std::unique_ptr<tarv::ManagerWrapper> manager_;
  std::optional<my_app::Adder> adder_;
};

void Register(FlutterVeltraPluginContext* context) {
  auto* registrar = cw::PluginRegistrarManager::GetInstance().GetRegistrarImpl(context);
  registrar->AddPlugin(std::make_shared<Task>(registrar));
}

}  // namespace

int main(int argc, char** argv) { return veltra::host::RunTask(argc, argv, {Register}); }
