#include <quarn/internal/attempt_all.h>
#include <tarv/rpc_server.h>
#include <vorpc/internal/hand_to_user.h>
#include <vorpc/internal/named_peer.h>

#include <utility>

#include "rpc_end.h"

template class quarn::Object<tarv::RpcServer, _RpcServerWrapperRef*>;

namespace tarv {
namespace {

// Create has made sure of it.
auto FindSend(const TARVRpcServerProcTable& table) { return table.SendMessage; }

bool HasAllEntries(const TARVRpcServerProcTable& table) {
  return QUARN_FIND_ENTRY(table, Run) != nullptr &&
         QUARN_FIND_ENTRY(table, SendMessage) != nullptr &&
         QUARN_FIND_ENTRY(table, UnlockResources) != nullptr;
}

}  // namespace

RpcServer::RpcServer(const std::shared_ptr<quarn::IDispatcher>& dispatcher,
                     const std::shared_ptr<Api>& api, _TARVRpcServerRef* server, PrivateTag)
    : Object(dispatcher),
      api_(api),
      server_(server),
      owned_(vorpc::IOwnedServer::Create(details::MakeSender(api, server, &FindSend))) {
  vorpc::NamePeer(owned_.get(), details::PeerOfServer());
}

RpcServer::~RpcServer() {
  owned_.reset();
  api_.reset();
}

std::shared_ptr<vorpc::IServer> RpcServer::Create(
    const std::shared_ptr<quarn::IDispatcher>& dispatcher, const std::shared_ptr<Api>& api,
    _TARVRpcServerRef* server) {
  if (!api || server == nullptr || !HasAllEntries(api->GetTable())) {
    return nullptr;
  }
  const auto self = Object::Create(dispatcher, api, server, PrivateTag());
  return vorpc::HandToUser<vorpc::IServer>(self,
                                           [](RpcServer& wrapper) { wrapper.owned_->Abandon(); });
}

void RpcServer::Run() {
  TARVRpcServerSlots callbacks{};
  callbacks.size = sizeof(callbacks);
  callbacks.OnStarted = &HandleOnStarted;
  callbacks.OnMessage = &HandleOnMessage;
  callbacks.user_data = GetRef();
  api_->GetTable().Run(server_, &callbacks);
}

void RpcServer::HandleOnStarted(void* user_data, int /*code*/, const char* /*message*/,
                                std::size_t chunk) {
  const auto self = details::Resolve<RpcServer>(user_data);
  if (!self) {
    return;
  }
  self->UnlockResources(chunk);
  self->owned_->Run();
}

void RpcServer::HandleOnMessage(void* user_data, const char* message, std::size_t chunk) {
  const auto self = details::Resolve<RpcServer>(user_data);
  if (!self) {
    return;
  }
  quarn::details::AttemptAll(
      [&self, message] { details::Deliver(message, *self->owned_, &details::PeerOfServer); },
      [&self, chunk] { self->UnlockResources(chunk); });
}

void RpcServer::UnlockResources(std::size_t chunk) const {
  if (chunk != 0) {
    api_->GetTable().UnlockResources(server_, chunk);
  }
}

void RpcServer::SendNotify(std::string_view method, const cw::EncodableValue& params) {
  owned_->SendNotify(method, params);
}

void RpcServer::OnConnected(
    std::function<void(const std::optional<vorpc::Message::Error>&)>&& callback) {
  owned_->OnConnected(std::move(callback));
}

void RpcServer::OnRequest(std::string_view method, RequestHandler handler) {
  owned_->OnRequest(method, std::move(handler));
}

void RpcServer::OnNotify(std::string_view method,
                         std::function<void(const vorpc::Message::Notification&)>&& callback) {
  owned_->OnNotify(method, std::move(callback));
}

}  // namespace tarv
