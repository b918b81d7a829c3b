#include "manager.h"

#include <quarn/listener.h>
#include <quarn/logger.h>

#include <algorithm>
#include <utility>

#include "empty_if_throws.h"

namespace tarv::details {
namespace {

// Lets go of `object`, which is empty by the time that the callbacks of its end run.
template <class T>
void Drop(std::shared_ptr<T>& object) {
  const auto dropped = std::exchange(object, nullptr);
}

}  // namespace

Manager::Manager(PrivateTag) : Object(quarn::IDispatcher::CreateEmpty()) {}

std::shared_ptr<Manager> Manager::Create() {
  auto manager = EmptyIfThrows([] { return Object::Create(PrivateTag()); });
  if (!manager) {
    QUARN_LOG_ERROR() << "Could not create Runtime Manager on API side.";
  }
  return manager;
}

_TARVManagerRef* Manager::HandleInitialize() {
  static const std::shared_ptr<Manager> kManager = Create();
  // Outlives the manager, so that a call at the very end of the process finds no freed memory.
  static _TARVManagerRef* const kRef = kManager ? kManager->GetRef() : nullptr;
  return kRef;
}

void Manager::HandleRelease(_TARVManagerRef* manager) {
  if (const auto self = FromRef(manager)) {
    self->Release();
  }
}

// Callbacks of the dying objects may come back here: what they find is whole.
void Manager::Release() {
  DropRpcClients();
  Drop(rpc_server_);
  Drop(intent_manager_);
}

// Those that are there now, one by one, so that a callback finds the rest. What a callback adds has
// a higher id, and stays.
void Manager::DropRpcClients() {
  const std::uint64_t last = rpc_clients_.empty() ? 0 : rpc_clients_.back()->GetId();
  while (!rpc_clients_.empty() && rpc_clients_.front()->GetId() <= last) {
    const auto client = std::move(rpc_clients_.front());
    rpc_clients_.erase(rpc_clients_.begin());
  }
}

_TARVIntentManagerRef* Manager::HandleGetIntentManager(_TARVManagerRef* manager) {
  const auto self = FromRef(manager);
  if (!self) {
    QUARN_LOG_ERROR() << "Runtime Manager is not initialized.";
    return nullptr;
  }
  if (!self->intent_manager_) {
    self->intent_manager_ = IntentManagerImpl::Create();
  }
  if (!self->intent_manager_) {
    QUARN_LOG_ERROR() << "Could not create Intent Manager on API side.";
    return nullptr;
  }
  return self->intent_manager_->GetRef();
}

_TARVRpcServerRef* Manager::HandleGetRpcServer(_TARVManagerRef* manager) {
  const auto self = FromRef(manager);
  if (!self) {
    return nullptr;
  }
  if (!self->rpc_server_) {
    self->rpc_server_ = RpcServerImpl::Create();
  }
  return self->rpc_server_ ? self->rpc_server_->GetRef() : nullptr;
}

_TARVRpcClientRef* Manager::HandleCreateRpcClient(_TARVManagerRef* manager) {
  const auto self = FromRef(manager);
  if (!self) {
    QUARN_LOG_ERROR() << "Runtime Manager is not initialized.";
    return nullptr;
  }
  const auto client = EmptyIfThrows([&self] { return self->CreateRpcClient(); });
  if (!client) {
    QUARN_LOG_ERROR() << "Could not create Task Worker on API side.";
    return nullptr;
  }
  return client->GetRef();
}

std::shared_ptr<RpcClientImpl> Manager::CreateRpcClient() {
  const auto stop_listener = std::make_shared<quarn::CppStyleListener<_TARVRpcClientRef*>>(
      [manager = GetRef()](_TARVRpcClientRef* client) {
        if (const auto self = FromRef(manager)) {
          self->RemoveRpcClient(client);
        }
      });
  auto client = RpcClientImpl::Create(stop_listener);
  if (client) {
    rpc_clients_.push_back(client);
  }
  return client;
}

void Manager::RemoveRpcClient(_TARVRpcClientRef* client) {
  const auto found =
      std::find_if(rpc_clients_.begin(), rpc_clients_.end(),
                   [client](const auto& entry) { return entry->GetRef() == client; });
  if (found == rpc_clients_.end()) {
    return;
  }
  // It dies after the list is whole again: its callbacks may come back to it.
  const auto removed = std::move(*found);
  rpc_clients_.erase(found);
}

}  // namespace tarv::details
