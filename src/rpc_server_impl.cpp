#include "rpc_server_impl.h"

#include <RuntimeManager/RuntimeDispatcher.h>
#include <quarn/logger.h>
#include <quarn/sized_struct.h>
#include <quarn/strings.h>

#include <string_view>
#include <utility>

#include "creation.h"

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
    on_started_(user_data_, code, message, chunk);
  }
}

void RpcServerListener::OnMessage(const char* message, std::size_t chunk) const {
  if (on_message_ != nullptr) {
    on_message_(user_data_, message, chunk);
  }
}

void RpcServerListener::Release() {
  on_started_ = nullptr;
  on_message_ = nullptr;
  const auto release = std::exchange(release_, nullptr);
  void* const user_data = std::exchange(user_data_, nullptr);
  if (release != nullptr) {
    release(user_data);
  }
}

RpcServerImpl::RpcServerImpl(PrivateTag) : Object(quarn::IDispatcher::CreateEmpty()) {}

RpcServerImpl::~RpcServerImpl() { QObject::disconnect(message_connection_); }

std::shared_ptr<RpcServerImpl> RpcServerImpl::Create() {
  return details::CreateOrEmpty([] { return Object::Create(PrivateTag()); });
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
  if (self && !self->messaging_) {
    self->Run(slots);
  }
}

void RpcServerImpl::Run(TARVRpcServerSlots* slots) {
  listener_ = RpcServerListener::Create(slots);
  messaging_.reset(new RuntimeManager::TaskMessaging(
      RuntimeManager::RuntimeDispatcher::instance()->localServerSocket(), nullptr));
  message_connection_ = QObject::connect(
      messaging_.get(), &RuntimeManager::TaskMessaging::messageReceived, messaging_.get(),
      [server = GetRef()](const QJsonObject& object) {
        if (const auto self = FromRef(server)) {
          self->OnMessageReceived(object);
        }
      },
      Qt::DirectConnection);
  details::DataRelay::Listen(messaging_.get(), [server = GetRef()](QByteArray& text) {
    if (const auto self = FromRef(server)) {
      details::DeliverText(text, self->cache_, self->listener_.get());
    }
  });
  listener_->OnStarted(0, "", 0);
}

void RpcServerImpl::OnMessageReceived(const QJsonObject& object) {
  details::DeliverMessage(object, cache_, listener_.get());
}

void RpcServerImpl::HandleUnlockResources(_TARVRpcServerRef* server, std::size_t chunk) {
  if (chunk == 0) {
    return;
  }
  if (const auto self = FromRef(server)) {
    self->cache_.RemoveChunk(chunk);
  }
}

QuarnResult RpcServerImpl::HandleSendMessage(_TARVRpcServerRef* server, const char* message) {
  const auto self = FromRef(server);
  if (!self || !self->messaging_) {
    return QUARN_RESULT_REFUSED;
  }
  const std::string_view text = quarn::strings::ViewOf(message);
  return details::SendText(self->messaging_.get(), text) ? QUARN_RESULT_SUCCESS
                                                         : QUARN_RESULT_REFUSED;
}

}  // namespace tarv
