// The library itself: a task is started and asked, in the C++ way and at the C interface.
#include <cw/plugin_registrar.h>
#include <tarv/intent_manager.h>
#include <tarv/manager_wrapper.h>
#include <tarv/rpc_client.h>
#include <tarv/rpc_server.h>
#include <tarv/tarv_capi.h>

#include <QCoreApplication>
#include <QElapsedTimer>

#include "check.h"

namespace plugin {
namespace {

constexpr qint64 kPatience = 60'000;  // ms

std::int32_t Add(vorpc::IClient& client) {
  std::int32_t sum = 0;
  const cw::EncodableMap numbers{{"a", 20}, {"b", 22}};
  client.SendRequest("add", numbers, [&sum](const auto& response) {
    sum = response.HasResult() ? std::get<std::int32_t>(*response.GetResult()) : -1;
  });
  client.Run();
  QElapsedTimer clock;
  clock.start();
  while (sum == 0 && !clock.hasExpired(kPatience)) {
    QCoreApplication::processEvents(QEventLoop::AllEvents, 100);
  }
  return sum;
}

struct Parts {
  std::shared_ptr<quarn::IDispatcher> dispatcher = quarn::IDispatcher::CreateEmpty();
  std::shared_ptr<quarn::Library> library;
  TARVProcTable root{};
  _TARVManagerRef* manager = nullptr;
};

// What the manager wrapper does inside.
void UseParts(const Parts& parts) {
  const std::shared_ptr<tarv::RpcClient::Api> client_api =
      tarv::RpcClient::Api::Create(parts.library, parts.root.RpcClientProcTableLoad);
  const auto client = tarv::RpcClient::Create(parts.dispatcher, "no-such-task", client_api,
                                              parts.root.CreateRpcClient(parts.manager));
  PLUGIN_CHECK(client != nullptr && !client->IsConnected());
  const std::shared_ptr<tarv::RpcServer::Api> server_api =
      tarv::RpcServer::Api::Create(parts.library, parts.root.RpcServerProcTableLoad);
  PLUGIN_CHECK(tarv::RpcServer::Create(parts.dispatcher, server_api,
                                       parts.root.GetRpcServer(parts.manager)) != nullptr);
  PLUGIN_CHECK(
      tarv::IntentManager::Create(
          tarv::IntentManager::Api::Create(parts.library, parts.root.IntentManagerProcTableLoad),
          parts.root.GetIntentManager(parts.manager)) != nullptr);
}

// Handles of the library's own objects mean the same to the plug-in.
void UseHandles(const std::shared_ptr<vorpc::IClient>& client,
                const std::shared_ptr<vorpc::IServer>& server) {
  const auto known_client = std::dynamic_pointer_cast<tarv::RpcClient>(client);
  PLUGIN_CHECK(tarv::RpcClient::FromRef(known_client->GetRef()) == client);
  PLUGIN_CHECK(known_client->GetId() != 0);
  const auto known_server = std::dynamic_pointer_cast<tarv::RpcServer>(server);
  PLUGIN_CHECK(tarv::RpcServer::FromRef(known_server->GetRef()) == server);
  PLUGIN_CHECK(known_server->GetId() != 0);
}

}  // namespace

void UseTarv(cw::PluginRegistrar* registrar) {
  Parts parts;
  parts.library = quarn::Library::Create(registrar->GetLibraryPath() / "libtarv.so");
  PLUGIN_CHECK(TARVProcTableLoad(&parts.root, sizeof(parts.root)) == QUARN_RESULT_SUCCESS);
  parts.manager = parts.root.Initialize();
  UseParts(parts);
  const auto manager = tarv::ManagerWrapper::Create(registrar);
  PLUGIN_CHECK(manager != nullptr);
  PLUGIN_CHECK(tarv::ManagerWrapper::Create(registrar->GetApplicationWrapper(),
                                            registrar->GetLibraryPath()) != nullptr);
  const auto server = manager->CreateRpcServer();
  PLUGIN_CHECK(server != nullptr);
  const auto intents = manager->GetIntentManager();
  PLUGIN_CHECK(intents != nullptr);
  intents->OpenUri("no uri", [](bool) {});
  const auto client = manager->CreateIpcClient("minimal");
  PLUGIN_CHECK(client != nullptr && Add(*client) == 42);
  PLUGIN_CHECK(!manager->GetLifetime().expired());
  UseHandles(client, server);
}

}  // namespace plugin
