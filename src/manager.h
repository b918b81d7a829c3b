// The service's root object: owns the clients, the server and the intent manager of the process.
#ifndef TARV_SRC_MANAGER_H
#define TARV_SRC_MANAGER_H

#include <quarn/object.h>
#include <tarv/tarv_capi.h>

#include <memory>
#include <vector>

#include "intent_manager_impl.h"
#include "rpc_client_impl.h"
#include "rpc_server_impl.h"

namespace tarv::details {

// Belongs to the thread that drives the platform's event loop; only HandleInitialize and handle
// resolution are for any thread.
class Manager final : public quarn::Object<Manager, _TARVManagerRef*> {
  struct PrivateTag {
    explicit PrivateTag() = default;
  };

 public:
  explicit Manager(PrivateTag);

  // A registered manager; empty, after a log line, when it cannot be made.
  static std::shared_ptr<Manager> Create();

  // The entries of the root table.
  static _TARVManagerRef* HandleInitialize();
  static void HandleRelease(_TARVManagerRef* manager);
  static _TARVIntentManagerRef* HandleGetIntentManager(_TARVManagerRef* manager);
  static _TARVRpcClientRef* HandleCreateRpcClient(_TARVManagerRef* manager);
  static _TARVRpcServerRef* HandleGetRpcServer(_TARVManagerRef* manager);

 private:
  void Release();
  void DropRpcClients();
  std::shared_ptr<RpcClientImpl> CreateRpcClient();
  void RemoveRpcClient(_TARVRpcClientRef* client);

  // Destroyed from the last to the first.
  std::shared_ptr<IntentManagerImpl> intent_manager_;
  std::vector<std::shared_ptr<RpcClientImpl>> rpc_clients_;
  std::shared_ptr<RpcServerImpl> rpc_server_;
};

}  // namespace tarv::details

#endif  // TARV_SRC_MANAGER_H
