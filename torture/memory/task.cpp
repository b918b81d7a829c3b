// The task that the tortures of memory talk to. Its own memory fails, too: "fail {nth, lasting}"
// arms it, SIGUSR1 mends it.

#include <cw/plugin.h>
#include <cw/plugin_registrar.h>
#include <tarv/manager_wrapper.h>
#include <unistd.h>
#include <veltra/host/run.h>

#include <csignal>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "failing_memory.h"

namespace {

using cw::EncodableValue;
using tarv::torture::LetMemoryFail;
using tarv::torture::MendMemory;

class Peer final : public cw::Plugin {
 public:
  explicit Peer(cw::PluginRegistrar* registrar)
      : manager_(tarv::ManagerWrapper::Create(registrar)), server_(manager_->CreateRpcServer()) {
    server_->OnRequest("echo", [](const std::string& /*method*/, const EncodableValue& params,
                                  auto&& reply) { reply->SendResult(params); });
    server_->OnRequest("process",
                       [](const std::string& /*method*/, const EncodableValue& /*params*/,
                          auto&& reply) { reply->SendResult(getpid()); });
    server_->OnNotify("say", [this](const vorpc::Message::Notification& notification) {
      server_->SendNotify("said", notification.params);
    });
    server_->OnRequest(
        "fail", [](const std::string& /*method*/, const EncodableValue& params, auto&& reply) {
          reply->SendResult({});
          const long nth = static_cast<long>(params.AsInt64().value_or(0));
          LetMemoryFail(std::labs(nth), nth < 0);
        });
    server_->OnRequest(
        "count", [](const std::string& /*method*/, const EncodableValue& /*params*/, auto&& reply) {
          reply->SendResult(static_cast<std::int64_t>(tarv::torture::CountAllocations()));
        });
    server_->Run();
  }

 private:
  std::unique_ptr<tarv::ManagerWrapper> manager_;
  std::shared_ptr<vorpc::IServer> server_;
};

void PeerRegisterWithRegistrar(FlutterVeltraPluginContext* context) {
  auto* const registrar = cw::PluginRegistrarManager::GetInstance().GetRegistrarImpl(context);
  registrar->AddPlugin(std::make_shared<Peer>(registrar));
}

}  // namespace

int main(int argc, char** argv) {
  tarv::torture::PrepareMemory();
  // Signals come to the one thread that there is.
  std::signal(SIGUSR1, [](int) { MendMemory(); });
  return veltra::host::RunTask(argc, argv, {PeerRegisterWithRegistrar});
}
