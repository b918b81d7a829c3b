// The task: a process of its own, which answers the application's requests.
#include <cw/plugin_registrar.h>
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
        server_(manager_ ? manager_->CreateRpcServer() : nullptr) {
    if (!server_) {
      std::exit(EXIT_FAILURE);  // the log has said why
    }
    server_->OnRequest(my_app::kAdd, [](const auto&, const cw::EncodableValue& params, auto reply) {
      const auto* numbers = std::get_if<std::vector<std::int32_t>>(&params);
      if (!numbers || numbers->empty()) {
        reply->SendError(-32602, "expected numbers to add", {});
        return;
      }
      reply->SendResult(std::accumulate(numbers->begin(), numbers->end(), std::int32_t{0}));
    });
    server_->Run();
  }

 private:
  std::unique_ptr<tarv::ManagerWrapper> manager_;
  std::shared_ptr<vorpc::IServer> server_;
};

void Register(FlutterVeltraPluginContext* context) {
  auto* registrar = cw::PluginRegistrarManager::GetInstance().GetRegistrarImpl(context);
  registrar->AddPlugin(std::make_shared<Task>(registrar));
}

}  // namespace

int main(int argc, char** argv) { return veltra::host::RunTask(argc, argv, {Register}); }
