#include "rpc_server_impl.h"

#include <RuntimeManager/RuntimeDispatcher.h>
#include <quarn/internal/calls_out.h>
#include <quarn/logger.h>
#include <quarn/sized_struct.h>

#include <new>
#include <string_view>
#include <utility>

#include "empty_if_throws.h"
#include "message_text.h"
#include "slot_release.h"

namespace tarv {

RpcServerListener::RpcServerListener(PrivateTag, const TARVRpcServerSlots* slots)
    : on_started_(quarn::ReadField(slots, &TARVRpcServerSlots::OnStarted)),
      on_message_(quarn::ReadField(slots, &TARVRpcServerSlots::OnMessage)),
      release_(quarn::ReadField(slots, &TARVRpcServerSlots::Release)),
      user_data_(quarn::ReadField(slots, &TARVRpcServerSlots::user_data)) {}

std::shared_ptr<RpcServerListener> RpcServerListener::Create(TARVRpcServerSlots* slots) {
  return std::make_shared<RpcServerListener>(PrivateTag(), slots);
}

void RpcServerListener::OnStarted(int code, const char* message, std::size_t chunk) const {
  if (on_started_ != nullptr) {
    quarn::details::CallsOut("OnStarted of the server");
    on_started_(user_data_, code, message, chunk);
  }
}

void RpcServerListener::OnMessage(const char* message, std::size_t chunk) const {
  if (on_message_ != nullptr) {
    quarn::details::CallsOut("OnMessage of the server");
    on_message_(user_data_, message, chunk);
  }
}

void RpcServerListener::Release() {
  const auto release = release_;
  void* const user_data = user_data_;
  Disown();
  details::CallRelease(release, user_data);
}

void RpcServerListener::Disown() {
  on_started_ = nullptr;
  on_message_ = nullptr;
  release_ = nullptr;
  user_data_ = nullptr;
}

RpcServerImpl::RpcServerImpl(PrivateTag) : Object(quarn::IDispatcher::CreateEmpty()) {}

// The channel closes before the listener is released.
RpcServerImpl::~RpcServerImpl() { channel_.Close(); }

std::shared_ptr<RpcServerImpl> RpcServerImpl::Create() {
  return details::EmptyIfThrows([] { return Object::Create(PrivateTag()); });
}

QuarnResult RpcServerImpl::HandleLoadProcTable(TARVRpcServerProcTable* table, std::size_t size) {
  if (table == nullptr) {
    QUARN_LOG_ERROR() << "Null table specified.";
    return QUARN_RESULT_INVALID_ARGUMENT;
  }
  quarn::StructFiller<TARVRpcServerProcTable>(table, size)
      .Fill(&TARVRpcServerProcTable::Run, &HandleRun)
      .Fill(&TARVRpcServerProcTable::UnlockResources, &HandleUnlockResources)
      .Fill(&TARVRpcServerProcTable::SendMessage, &HandleSendMessage);
  return QUARN_RESULT_SUCCESS;
}

void RpcServerImpl::HandleRun(_TARVRpcServerRef* server, TARVRpcServerSlots* slots) {
  const auto self = FromRef(server);
  if (self && !self->channel_.IsOpen()) {
    self->Run(slots);
  }
}

void RpcServerImpl::Run(TARVRpcServerSlots* slots) {
  listener_ = RpcServerListener::Create(slots);
  try {
    const int socket = RuntimeManager::RuntimeDispatcher::instance()->localServerSocket();
    channel_.Open(new RuntimeManager::TaskMessaging(socket, nullptr), GetRef());
  } catch (...) {
    // The caller learns of it at once, keeps its slots, and may try again.
    channel_.Close();
    listener_->Disown();
    throw;
  }
  listener_->OnStarted(0, "", 0);
}

// Delivers a message. When memory runs out for it, here or at the receiver's, it is lost, and the
// starter may wait for the answer: it sees the channel end.
template <class Step>
void RpcServerImpl::OrEnd(const Step& step) {
  try {
    step();
  } catch (const std::bad_alloc&) {
    QUARN_LOG_ERROR() << "Memory ran out for a message from the starter: the channel is closed.";
    channel_.Close();
  }
}

void RpcServerImpl::OnMessageReceived(const QJsonObject& object) {
  OrEnd([this, &object] { details::DeliverTextOf(object, texts_, *listener_); });
}

void RpcServerImpl::OnTextReceived(QByteArray& text) {
  OrEnd([this, &text] { details::DeliverText(text, texts_, *listener_); });
}

void RpcServerImpl::HandleUnlockResources(_TARVRpcServerRef* server, std::size_t chunk) {
  if (chunk == 0) {
    return;
  }
  if (const auto self = FromRef(server)) {
    self->texts_.Remove(chunk);
  }
}

QuarnResult RpcServerImpl::HandleSendMessage(_TARVRpcServerRef* server, const char* message) {
  const auto messaging = Channel::Find(server);
  if (!messaging) {
    return QUARN_RESULT_REFUSED;
  }
  const std::string_view text = quarn::FindView(quarn::TextWay::kOut, message);
  return details::SendText(*messaging, text) ? QUARN_RESULT_SUCCESS : QUARN_RESULT_REFUSED;
}

}  // namespace tarv
