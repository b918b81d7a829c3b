#include <quarn/internal/attempt_all.h>
#include <tarv/rpc_server.h>

#include <utility>

#include "texts.h"

template class quarn::Object<tarv::RpcServer, _RpcServerWrapperRef*>;

namespace tarv {
namespace {

// Turns each message into its text and hands it to the service. The table may be gone by then: a
// reply can outlive the server.
std::function<void(vorpc::Message&&)> MakeSend(const std::weak_ptr<RpcServer::Api>& weak_api,
                                               _TARVRpcServerRef* server) {
  return [weak_api, server](vorpc::Message&& message) {
    const auto api = weak_api.lock();
    if (!api) {
      return;
    }
    const std::string text = details::Encode(std::move(message));
    if (!text.empty()) {
      api->GetTable().SendMessage(server, text.c_str());
    }
  };
}

bool HasAllEntries(const TARVRpcServerProcTable& table) {
  return QUARN_FIND_ENTRY(table, Run) != nullptr &&
         QUARN_FIND_ENTRY(table, SendMessage) != nullptr &&
         QUARN_FIND_ENTRY(table, UnlockResources) != nullptr;
}

std::shared_ptr<RpcServer> Resolve(void* user_data) {
  return RpcServer::FromRef(static_cast<_RpcServerWrapperRef*>(user_data));
}

}  // namespace

RpcServer::RpcServer(const std::shared_ptr<quarn::IDispatcher>& dispatcher,
                     const std::shared_ptr<Api>& api, _TARVRpcServerRef* server, PrivateTag)
    : Object(dispatcher),
      api_(api),
      server_(server),
      owned_(vorpc::IOwnedServer::Create(MakeSend(api, server))) {}

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
  // The references outside are counted apart from those of running callbacks: once they are gone,
  // no further callback begins.
  RpcServer* const handle = self.get();
  return {handle, [self = self](vorpc::IServer* /*handle*/) mutable {
            self->owned_->Abandon();
            self.reset();
          }};
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
  const auto self = Resolve(user_data);
  if (!self) {
    return;
  }
  self->UnlockResources(chunk);
  self->owned_->Run();
}

void RpcServer::HandleOnMessage(void* user_data, const char* message, std::size_t chunk) {
  const auto self = Resolve(user_data);
  if (!self) {
    return;
  }
  quarn::details::AttemptAll(
      [&self, message] {
        if (auto received = details::Decode(message)) {
          self->owned_->Receive(*std::move(received));
        }
      },
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
