#include <quarn/internal/attempt_all.h>
#include <tarv/rpc_client.h>
#include <vorpc/internal/hand_to_user.h>
#include <vorpc/internal/named_peer.h>

#include <new>
#include <utility>

#include "c_text.h"
#include "made_clients.h"
#include "rpc_end.h"

template class quarn::Object<tarv::RpcClient, _RpcClientWrapperRef*>;

namespace tarv {
namespace {

using quarn::details::AttemptAll;

// Looked for anew at each send.
auto FindSend(const TARVRpcClientProcTable& table) { return QUARN_FIND_ENTRY(table, SendMessage); }

bool HasAllEntries(const TARVRpcClientProcTable& table) {
  return QUARN_FIND_ENTRY(table, SendMessage) != nullptr &&
         QUARN_FIND_ENTRY(table, StartTask) != nullptr &&
         QUARN_FIND_ENTRY(table, UnlockResources) != nullptr &&
         QUARN_FIND_ENTRY(table, Release) != nullptr;
}

// When memory runs out for the text, the error has a shorter one, which takes none.
std::optional<vorpc::Message::Error> MakeError(int code, const char* message) noexcept {
  if (code == 0) {
    return std::nullopt;
  }
  try {
    return vorpc::Message::Error(code, message);
  } catch (const std::bad_alloc&) {
    return vorpc::Message::Error(code, "Out of memory");
  }
}

}  // namespace

RpcClient::RpcClient(const std::shared_ptr<quarn::IDispatcher>& dispatcher,
                     const std::shared_ptr<Api>& api, _TARVRpcClientRef* client, PrivateTag)
    : Object(dispatcher),
      api_(api),
      client_(client),
      owned_(vorpc::IOwnedClient::Create(details::MakeSender(api, client, &FindSend))),
      requests_(dynamic_cast<vorpc::IRequests*>(owned_.get())) {}

ITaskClient::~ITaskClient() = default;

RpcClient::~RpcClient() {
  details::MadeClients::Get().Remove(GetRef());
  api_->GetTable().Release(client_);
  owned_.reset();
  api_.reset();
}

std::shared_ptr<vorpc::IClient> RpcClient::Create(
    const std::shared_ptr<quarn::IDispatcher>& dispatcher, const std::string& name,
    const std::shared_ptr<Api>& api, _TARVRpcClientRef* client) {
  if (!api || client == nullptr || !HasAllEntries(api->GetTable())) {
    return nullptr;
  }
  const auto self = Object::Create(dispatcher, api, client, PrivateTag());
  self->name_ = name;
  vorpc::NamePeer(self->owned_.get(), details::PeerOfClient(name));
  if (!self->owned_ || self->StartTask(name) != QUARN_RESULT_SUCCESS) {
    return nullptr;
  }
  return vorpc::HandToUser<vorpc::IClient>(self, [](RpcClient& wrapper) {
    wrapper.let_go_ = true;
    wrapper.owned_->Abandon();
  });
}

QuarnResult RpcClient::StartTask(const std::string& name) {
  if (!details::ReachesCWhole(name, "name of the task to start")) {
    return QUARN_RESULT_INVALID_ARGUMENT;
  }
  TARVRpcClientSlots callbacks{};
  callbacks.size = sizeof(callbacks);
  callbacks.OnStarted = &HandleOnStarted;
  callbacks.OnDisconnect = &HandleOnDisconnect;
  callbacks.OnMessage = &HandleOnMessage;
  callbacks.user_data = GetRef();
  const std::string libraries = api_->GetLibrary()->GetPath().parent_path().string();
  return api_->GetTable().StartTask(client_, name.c_str(), libraries.c_str(), &callbacks);
}

void RpcClient::HandleOnStarted(void* user_data, int code, const char* message, std::size_t chunk) {
  const auto self = details::Resolve<RpcClient>(user_data);
  if (!self) {
    return;
  }
  AttemptAll(
      [&self, code, message] {
        if (code != 0) {
          self->owned_->Disconnect(MakeError(code, message));
        }
      },
      [&self, chunk] {
        if (chunk != 0) {
          self->api_->GetTable().UnlockResources(self->client_, chunk);
        }
      },
      // A client that the failure has closed ignores this.
      [&self] { self->owned_->SetStarted(); });
}

void RpcClient::HandleOnMessage(void* user_data, const char* message, std::size_t chunk) {
  const auto self = details::Resolve<RpcClient>(user_data);
  if (!self) {
    return;
  }
  const auto name_peer = [&self] { return details::PeerOfClient(self->name_); };
  AttemptAll([&self, message, name_peer] { details::Deliver(message, *self->owned_, name_peer); },
             [&self, chunk] { self->UnlockResources(chunk); });
}

void RpcClient::HandleOnDisconnect(void* user_data, int code, const char* message,
                                   std::size_t chunk) {
  const auto self = details::Resolve<RpcClient>(user_data);
  if (!self) {
    return;
  }
  AttemptAll([&self, code, message] { self->owned_->Disconnect(MakeError(code, message)); },
             [&self, chunk] { self->UnlockResources(chunk); });
}

void RpcClient::UnlockResources(std::size_t chunk) const {
  quarn::CallEntry(QUARN_FIND_ENTRY(api_->GetTable(), UnlockResources), client_, chunk);
}

void RpcClient::OnManagerEnded(std::function<void(EndedManager)>&& callback) {
  manager_ended_.Subscribe(std::make_shared<quarn::CppStyleListener<EndedManager>>(
      [this, callback = std::move(callback)](EndedManager manager) {
        if (callback && !let_go_) {
          callback(manager);
        }
      }));
}

void RpcClient::TellManagerEnded(_RpcClientWrapperRef* client, EndedManager manager) {
  if (const auto self = FromRef(client)) {
    self->manager_ended_.Emit(manager);
  }
}

bool RpcClient::IsConnected() const { return owned_->IsConnected(); }

bool RpcClient::HasConnectionFailed() const { return owned_->HasConnectionFailed(); }

void RpcClient::Run() { owned_->Run(); }

void RpcClient::OnConnected(
    std::function<void(const std::optional<vorpc::Message::Error>&)>&& callback) {
  owned_->OnConnected(std::move(callback));
}

void RpcClient::OnDisconnected(
    std::function<void(const std::optional<vorpc::Message::Error>&)>&& callback) {
  owned_->OnDisconnected(std::move(callback));
}

void RpcClient::SendRequest(std::string_view method, const cw::EncodableValue& params,
                            std::function<void(const vorpc::Message::Response&)>&& callback) {
  owned_->SendRequest(method, params, std::move(callback));
}

vorpc::Message::ID RpcClient::StartRequest(
    std::string_view method, const cw::EncodableValue& params,
    std::function<void(const vorpc::Message::Response&)>&& callback) {
  return requests_->StartRequest(method, params, std::move(callback));
}

bool RpcClient::ForgetRequest(const vorpc::Message::ID& id) { return requests_->ForgetRequest(id); }

void RpcClient::SendNotify(std::string_view method, const cw::EncodableValue& params) {
  owned_->SendNotify(method, params);
}

void RpcClient::OnNotify(std::string_view method,
                         std::function<void(const vorpc::Message::Notification&)>&& callback) {
  owned_->OnNotify(method, std::move(callback));
}

}  // namespace tarv
