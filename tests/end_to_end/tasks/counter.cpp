// The task "counter": echoes, and tells what its process has taken of memory and looked at.

#include <cw/plugin.h>
#include <cw/plugin_registrar.h>
#include <tarv/manager_wrapper.h>
#include <veltra/host/run.h>

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "end_to_end/allocations.h"
#include "end_to_end/memory_figures.h"
#include "end_to_end/watched.h"

namespace {

using Reply = std::unique_ptr<vorpc::IReply>;

class Counter final : public cw::Plugin {
 public:
  explicit Counter(cw::PluginRegistrar* registrar)
      : manager_(tarv::ManagerWrapper::Create(registrar)), server_(manager_->CreateRpcServer()) {
    server_->OnRequest("echo", [](const std::string& /*method*/, const cw::EncodableValue& params,
                                  Reply&& reply) { reply->SendResult(params); });
    Tell("count allocations", &tarv::test::CountAllocations);
    Tell("count watched", &tarv::test::CountWatched);
    Tell("count faults", &tarv::test::CountFaults);
    Tell("count held", &tarv::test::CountHeld);
    Tell("peak memory", &tarv::test::PeakMemory);
    // By a list of the values' size and the number of rounds.
    server_->OnRequest(
        "count faults of values",
        [](const std::string& /*method*/, const cw::EncodableValue& params, Reply&& reply) {
          const auto& numbers = std::get<std::vector<std::int64_t>>(params);
          reply->SendResult(std::int64_t(tarv::test::CountFaultsOfValues(
              static_cast<std::size_t>(numbers.at(0)), static_cast<std::size_t>(numbers.at(1)))));
        });
    server_->Run();
  }

 private:
  void Tell(const std::string& what, std::size_t (*count)()) const {
    server_->OnRequest(what,
                       [count](const std::string& /*method*/, const cw::EncodableValue& /*params*/,
                               Reply&& reply) { reply->SendResult(std::int64_t(count())); });
  }

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
