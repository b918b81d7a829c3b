#include "task_plugin.h"

#include <cw/plugin.h>
#include <cw/plugin_registrar.h>
#include <tarv/manager_wrapper.h>

#include <cstdlib>
#include <cstring>
#include <iostream>
#include <memory>
#include <utility>

#include "../names.h"
#include "hasher.h"

namespace checksums {
namespace {

using Bytes = std::vector<std::uint8_t>;

class TaskPlugin : public cw::Plugin {
 public:
  explicit TaskPlugin(cw::PluginRegistrar* registrar)
      : manager_(tarv::ManagerWrapper::Create(registrar)),
        server_(manager_ ? manager_->CreateRpcServer() : nullptr) {}

  // False when the library cannot be used.
  bool Serve() {
    if (!server_) {
      return false;
    }
    server_->OnRequest(
        "hash", [this](const std::string&, const cw::EncodableValue& params,
                       std::unique_ptr<vorpc::IReply>&& reply) { Hash(params, std::move(reply)); });
    server_->OnNotify("cancel", [this](const auto&) { hasher_.DropAll(); });
    server_->Run();
    return true;
  }

 private:
  void Hash(const cw::EncodableValue& params, std::unique_ptr<vorpc::IReply> unique_reply) {
    const auto* const path = params.Find<Bytes>("path");
    const auto* const file = params.Find("file");
    if (path == nullptr || file == nullptr) {
      unique_reply->SendError(kCannotRead, "A request names its file and its path.", {});
      return;
    }
    const std::shared_ptr<vorpc::IReply> reply = std::move(unique_reply);
    hasher_.Add(
        {std::string(path->begin(), path->end()),
         [this, number = *file](std::uint64_t bytes) { SendProgress(number, bytes); },
         [reply](Bytes sha256) { reply->SendResult(std::move(sha256)); },
         [reply](int error) {
           reply->SendError(kCannotRead, std::strerror(error), cw::EncodableMap{{"errno", error}});
         },
         [reply] { reply->SendError(kDropped, "The work was cancelled.", {}); }});
  }

  void SendProgress(const cw::EncodableValue& file, std::uint64_t bytes) const {
    server_->SendNotify(
        "progress", cw::EncodableMap{{"file", file}, {"bytes", static_cast<std::int64_t>(bytes)}});
  }

  // Objects go before the manager that made them.
  std::unique_ptr<tarv::ManagerWrapper> manager_;
  std::shared_ptr<vorpc::IServer> server_;
  Hasher hasher_;
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
