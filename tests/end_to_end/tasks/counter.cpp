// The task "counter": echoes, and tells how many memory allocations its process has made.

#include <cw/plugin.h>
#include <cw/plugin_registrar.h>
#include <tarv/manager_wrapper.h>
#include <veltra/host/run.h>

#include <cstdint>
#include <memory>
#include <string>

#include "end_to_end/allocations.h"

namespace {

using Reply = std::unique_ptr<vorpc::IReply>;

class Counter final : public cw::Plugin {
 public:
  explicit Counter(cw::PluginRegistrar* registrar)
      : manager_(tarv::ManagerWrapper::Create(registrar)), server_(manager_->CreateRpcServer()) {
    server_->OnRequest("echo", [](const std::string& /*method*/, const cw::EncodableValue& params,
                                  Reply&& reply) { reply->SendResult(params); });
    server_->OnRequest(
        "count allocations",
        [](const std::string& /*method*/, const cw::EncodableValue& /*params*/, Reply&& reply) {
          reply->SendResult(std::int64_t(tarv::test::CountAllocations()));
        });
    server_->Run();
  }

 private:
  std::unique_ptr<tarv::ManagerWrapper> manager_;
  std::shared_ptr<vorpc::IServer> server_;
};

void CounterRegisterWithRegistrar(FlutterVeltraPluginContext* context) {
  auto* const registrar = cw::PluginRegistrarManager::GetInstance().GetRegistrarImpl(context);
  registrar->AddPlugin(std::make_shared<Counter>(registrar));
}

}  // namespace

int main(int argc, char** argv) {
  return veltra::host::RunTask(argc, argv, {CounterRegisterWithRegistrar});
}
