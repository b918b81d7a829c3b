#include "rpc_client_impl.h"

#include <quarn/escaped.h>
#include <quarn/internal/attempt_all.h>
#include <quarn/internal/calls_out.h>
#include <quarn/logger.h>
#include <quarn/sized_struct.h>

#include <QString>
#include <QStringList>
#include <new>
#include <utility>

#include "empty_if_throws.h"
#include "message_text.h"
#include "optional_members.h"
#include "slot_release.h"

namespace tarv {

using quarn::details::AttemptAll;
using quarn::details::CallsOut;

namespace {

// JSON-RPC's "internal error", for whatever has no code that a JSON-RPC client can take.
constexpr int kInternalError = -32603;

// Texts that take no memory, and no chunk.
constexpr char kNoMemoryForChannel[] = "Memory ran out while the channel to the task was opened.";
constexpr char kNoMemoryForMessage[] = "Memory ran out for a message from the task.";

// The platform's code where it lies in the range that JSON-RPC leaves to servers.
int DisconnectCode(const RuntimeManager::Error& error) {
  constexpr int kFirstServerCode = -32099;
  constexpr int kLastServerCode = -32000;
  const bool fits = kFirstServerCode <= error.code() && error.code() <= kLastServerCode;
  return fits ? error.code() : kInternalError;
}

}  // namespace

RpcClientListener::RpcClientListener(PrivateTag, const TARVRpcClientSlots* slots)
    : on_started_(quarn::ReadField(slots, &TARVRpcClientSlots::OnStarted)),
      on_disconnect_(quarn::ReadField(slots, &TARVRpcClientSlots::OnDisconnect)),
      on_message_(quarn::ReadField(slots, &TARVRpcClientSlots::OnMessage)),
      release_(quarn::ReadField(slots, &TARVRpcClientSlots::Release)),
      user_data_(quarn::ReadField(slots, &TARVRpcClientSlots::user_data)) {}

std::shared_ptr<RpcClientListener> RpcClientListener::Create(TARVRpcClientSlots* slots) {
  return std::make_shared<RpcClientListener>(PrivateTag(), slots);
}

void RpcClientListener::OnStarted(int code, const char* message, std::size_t chunk) const {
  if (on_started_ != nullptr) {
    CallsOut("OnStarted of a client");
    on_started_(user_data_, code, message, chunk);
  }
}

void RpcClientListener::OnDisconnect(int code, const char* message, std::size_t chunk) const {
  if (on_disconnect_ != nullptr) {
    CallsOut("OnDisconnect of a client");
    on_disconnect_(user_data_, code, message, chunk);
  }
}

void RpcClientListener::OnMessage(const char* message, std::size_t chunk) const {
  if (on_message_ != nullptr) {
    CallsOut("OnMessage of a client");
    on_message_(user_data_, message, chunk);
  }
}

void RpcClientListener::Release() {
  const auto release = release_;
  void* const user_data = user_data_;
  Disown();
  details::CallRelease(release, user_data);
}

void RpcClientListener::Disown() {
  on_started_ = nullptr;
  on_disconnect_ = nullptr;
  on_message_ = nullptr;
  release_ = nullptr;
  user_data_ = nullptr;
}

RpcClientImpl::RpcClientImpl(std::shared_ptr<StopListener> stop_listener, PrivateTag)
    : Object(quarn::IDispatcher::CreateEmpty()), stop_listener_(std::move(stop_listener)) {}

RpcClientImpl::~RpcClientImpl() {
  channel_.StopSending();
  listener_.reset();
  TakeStopListener();
  CleanupMessaging(0, "", 0);
  CleanupTask();
  Release();
}

std::shared_ptr<RpcClientImpl> RpcClientImpl::Create(
    const std::shared_ptr<StopListener>& stop_listener) {
  auto client = details::EmptyIfThrows(
      [&stop_listener] { return Object::Create(stop_listener, PrivateTag()); });
  if (!client) {
    QUARN_LOG_ERROR() << "Could not create Task Worker.";
  }
  return client;
}

QuarnResult RpcClientImpl::HandleLoadProcTable(TARVRpcClientProcTable* table, std::size_t size) {
  if (table == nullptr) {
    QUARN_LOG_ERROR() << "Null table specified.";
    return QUARN_RESULT_INVALID_ARGUMENT;
  }
  quarn::StructFiller<TARVRpcClientProcTable>(table, size)
      .Fill(&TARVRpcClientProcTable::StartTask, &HandleStartTask)
      .Fill(&TARVRpcClientProcTable::UnlockResources, &RpcUnlockResourcesImpl)
      .Fill(&TARVRpcClientProcTable::SendMessage, &HandleSendMessage)
      .Fill(&TARVRpcClientProcTable::Release, &HandleRelease);
  return QUARN_RESULT_SUCCESS;
}

QuarnResult RpcClientImpl::HandleStartTask(_TARVRpcClientRef* client, const char* task_name,
                                           const char* libs_path, TARVRpcClientSlots* slots) {
  if (task_name == nullptr || *task_name == '\0' || libs_path == nullptr || *libs_path == '\0') {
    return QUARN_RESULT_INVALID_ARGUMENT;
  }
  const auto self = FromRef(client);
  if (!self) {
    return QUARN_RESULT_INVALID_ARGUMENT;
  }
  if (!self->Transit(kIdle, kStarting)) {
    return QUARN_RESULT_REFUSED;
  }
  try {
    self->listener_ = RpcClientListener::Create(slots);
    self->StartTask(task_name, libs_path);
  } catch (...) {
    // The caller learns of it at once, and keeps its slots.
    if (self->Transit(kStarting, kStartFailed) && self->listener_) {
      self->listener_->Disown();
    }
    throw;
  }
  return QUARN_RESULT_SUCCESS;
}

void RpcClientImpl::StartTask(const std::string& task_name, const std::string& libs_path) {
  task_.reset(new RuntimeManager::Task(QString::fromStdString(task_name), nullptr));
  message_log_ = details::MessageLog::Create(task_name);
  task_->withIpcSocket(true);
  task_->withArguments({QStringLiteral("--libs-path"), QString::fromStdString(libs_path)});
  details::ConnectFinished(task_.get(), [client = GetRef()](const RuntimeManager::Error& error) {
    if (const auto self = FromRef(client)) {
      self->OnLost(error);
    }
  });
  task_->start([client = GetRef()](const RuntimeManager::Error& error) {
    if (const auto self = FromRef(client)) {
      self->OnStartCompleted(error);
    }
  });
}

// Takes a step of a delivery. When memory runs out in it, here or at the receiver's, the message is
// lost, and a request may wait for it: that is the end.
template <class Step>
void RpcClientImpl::OrEnd(const Step& step) {
  try {
    step();
  } catch (const std::bad_alloc&) {
    if (Transit(kRunning, kStopping)) {
      Stop(kInternalError, kNoMemoryForMessage, 0);
    }
  }
}

void RpcClientImpl::OnStartCompleted(const RuntimeManager::Error& error) {
  if (error.isError()) {
    OnStartFailed(error);
    return;
  }
  if (!Transit(kStarting, kRunning)) {
    return;
  }
  try {
    OpenMessaging();
  } catch (const std::bad_alloc&) {
    OnNoChannel();
    return;
  }
  OrEnd([this] { listener_->OnStarted(0, "", 0); });
}

// The task runs, and memory ran out for its channel.
void RpcClientImpl::OnNoChannel() {
  Transit(kRunning, kStopping);
  channel_.Close();
  AttemptAll([this] { listener_->OnStarted(kInternalError, kNoMemoryForChannel, 0); },
             [this] { StopTask(); });
}

void RpcClientImpl::OnStartFailed(const RuntimeManager::Error& error) {
  if (!Transit(kStarting, kStartFailed)) {
    return;
  }
  const CachedText text = Cache(error.message());
  QUARN_LOG_INFO() << "[ta-rv] on started call error: " << quarn::Escaped{text.message};
  listener_->OnStarted(kInternalError, text.message, text.chunk);
}

void RpcClientImpl::OpenMessaging() {
  channel_.Open(new RuntimeManager::TaskMessaging(task_->socketPath(), nullptr), GetRef());
  details::ConnectDisconnected(channel_.GetMessaging(),
                               [client = GetRef()](const RuntimeManager::Error& error) {
                                 if (const auto self = FromRef(client)) {
                                   self->OnLost(error);
                                 }
                               });
}

// A task's end is the last that is heard of it, also by an event loop that OnDisconnect runs.
void RpcClientImpl::OnMessageReceived(const QJsonObject& object) {
  if (state_ != kRunning) {
    return;
  }
  OrEnd([this, &object] {
    if (message_log_ != nullptr) {
      message_log_->OnReceived(details::TextOf(object).value_or(QByteArray()).toStdString());
    }
    details::DeliverTextOf(object, texts_, *listener_);
  });
}

void RpcClientImpl::OnTextReceived(QByteArray& text) {
  if (state_ != kRunning) {
    return;
  }
  OrEnd([this, &text] {
    if (message_log_ != nullptr) {
      message_log_->OnReceived({text.constData(), static_cast<std::size_t>(text.size())});
    }
    details::DeliverText(text, texts_, *listener_);
  });
}

QuarnResult RpcClientImpl::HandleSendMessage(_TARVRpcClientRef* client, const char* message) {
  const auto messaging = Channel::Find(client);
  if (!messaging || message == nullptr) {
    return QUARN_RESULT_REFUSED;
  }
  const std::string_view text = quarn::FindView(quarn::TextWay::kOut, message);
  if (details::MessageLog::IsOn()) {
    if (const auto self = FromRef(client)) {
      self->message_log_->OnSent(text);
    }
  }
  return details::SendText(*messaging, text) ? QUARN_RESULT_SUCCESS : QUARN_RESULT_REFUSED;
}

void RpcClientImpl::RpcUnlockResourcesImpl(_TARVRpcClientRef* client, std::size_t chunk) {
  if (chunk == 0) {
    return;
  }
  if (const auto self = FromRef(client)) {
    self->texts_.Remove(chunk);
  }
}

void RpcClientImpl::HandleRelease(_TARVRpcClientRef* client) {
  const auto self = FromRef(client);
  if (!self) {
    return;
  }
  self->Unregister();
  self->Release();
}

void RpcClientImpl::Release() {
  if (Transit(kRunning, kStopping)) {
    Stop(0, "", 0);
  }
}

// The task ended, or its channel was lost, without a Release.
void RpcClientImpl::OnLost(const RuntimeManager::Error& error) {
  if (!Transit(kRunning, kStopping)) {
    return;
  }
  const CachedText text = Cache(error.message());
  Stop(DisconnectCode(error), text.message, text.chunk);
}

// The end of a task is told even when there is no memory left for its reason.
RpcClientImpl::CachedText RpcClientImpl::Cache(const QString& text) {
  return details::EmptyIfThrows([this, &text] { return texts_.Copy(text.toStdString()); });
}

// Nothing can be sent any more when OnDisconnect says so.
void RpcClientImpl::Stop(int code, const char* message, std::size_t chunk) {
  channel_.StopSending();
  AttemptAll([this, code, message, chunk] { CleanupMessaging(code, message, chunk); },
             [this] { StopTask(); });
}

void RpcClientImpl::StopTask() {
  if (!task_) {
    OnStop();
    return;
  }
  try {
    AskTaskToStop();
  } catch (const std::bad_alloc&) {
    // Destroyed, it ends its process, too, and tells nobody.
    CleanupTask();
    OnStop();
  }
}

void RpcClientImpl::AskTaskToStop() {
  task_->stop({}, [client = weak_from_this()](const RuntimeManager::Error& error) {
    const auto self = client.lock();
    if (!self) {
      return;
    }
    if (error.isError()) {
      QUARN_LOG_ERROR() << "[ta-rv] stop error: " << quarn::Escaped{error.message().toStdString()};
    }
    self->OnStop();
  });
}

void RpcClientImpl::OnStop() {
  if (const auto stop_listener = TakeStopListener()) {
    // The listener drops the manager's reference; the client must outlive that call.
    const auto self = shared_from_this();
    stop_listener->InvokeOnce(GetRef());
  }
}

void RpcClientImpl::CleanupMessaging(int code, const char* message, std::size_t chunk) {
  AttemptAll(
      [this, code, message, chunk] {
        if (listener_) {
          listener_->OnDisconnect(code, message, chunk);
        }
      },
      [this] { channel_.Close(); });
}

void RpcClientImpl::CleanupTask() { task_.reset(); }

std::shared_ptr<RpcClientImpl::StopListener> RpcClientImpl::TakeStopListener() {
  const std::lock_guard lock(stop_mutex_);
  return std::exchange(stop_listener_, nullptr);
}

}  // namespace tarv
