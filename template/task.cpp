// The task: a process of its own, which answers the application's requests.
#include <cw/plugin_registrar.h>
#include <tarv/calls/service.h>
#include <tarv/manager_wrapper.h>
#include <veltra/host/run.h>

#include <cstdint>
#include <cstdlib>
#include <memory>
#include <numeric>
#include <vector>

#include "names.h"

namespace {

class Task : public cw::Plugin {
 public:
  explicit Task(cw::PluginRegistrar* registrar)
      : manager_(tarv::ManagerWrapper::Create(registrar)),
        service_(tarv::Service::For(manager_ ? manager_->CreateRpcServer() : nullptr)) {
    if (!service_) {
      std::exit(EXIT_FAILURE);  // the log has said why
    }
    service_->On(my_app::kAdd, [](const std::vector<std::int32_t>& numbers) {
      if (numbers.empty()) {
        throw tarv::RequestError(tarv::kInvalidParams, "expected numbers to add");
      }
      return std::accumulate(numbers.begin(), numbers.end(), std::int32_t{0});
    });
    service_->Run();
  }

 private:
  std::unique_ptr<tarv::ManagerWrapper> manager_;
  std::shared_ptr<tarv::Service> service_;
};

void Register(FlutterVeltraPluginContext* context) {
  auto* registrar = cw::PluginRegistrarManager::GetInstance().GetRegistrarImpl(context);
  registrar->AddPlugin(std::make_shared<Task>(registrar));
}

}  // namespace

int main(int argc, char** argv) { return veltra::host::RunTask(argc, argv, {Register}); }
