#include "intent_manager_impl.h"

#include <cw/encodable_value.h>
#include <quarn/internal/attempt_all.h>
#include <quarn/internal/calls_out.h>
#include <quarn/listener.h>
#include <quarn/logger.h>
#include <quarn/sized_struct.h>
#include <vorpc/qt/utils.h>

#include <QJsonValue>
#include <QString>
#include <new>
#include <optional>
#include <utility>

#include "empty_if_throws.h"

namespace {

using SendReply = IntentManagerImpl::SendReply;

constexpr char kOpenUriIntent[] = "OpenURI";

QJsonObject UriParameters(const std::string& uri) {
  return {{QStringLiteral("uri"), QString::fromStdString(uri)}};
}

// The JSON object that the bytes of a reply stand for.
std::optional<QJsonObject> DecodeReply(const std::uint8_t* data, std::size_t length) {
  QJsonValue json;
  const auto value = cw::EncodableValue::Deserialize(data, length);
  if (!vorpc::qt::EncodableToJson(value, json) || !json.isObject()) {
    return std::nullopt;
  }
  return json.toObject();
}

// The callback of a TARVReplyIntentSlot. The invoking party always gets an answer.
void AnswerIntent(void* user_data, const std::uint8_t* data, std::size_t length) {
  auto reply = DecodeReply(data, length);
  if (!reply) {
    QUARN_LOG_ERROR() << "Could not convert intent reply to a JSON object.";
    reply.emplace();
  }
  (*static_cast<SendReply*>(user_data))(*reply);
}

// The release function of a TARVReplyIntentSlot.
void ReleaseReply(void* user_data) { delete static_cast<SendReply*>(user_data); }

// Calls the application, which then owns `send_reply` through the slot's release.
void AskApplication(const quarn::IListener<TARVReplyIntentSlot*>& listener, SendReply send_reply) {
  TARVReplyIntentSlot slot{};
  slot.size = sizeof(slot);
  slot.callback = &AnswerIntent;
  slot.release = &ReleaseReply;
  slot.user_data = std::make_unique<SendReply>(std::move(send_reply)).release();
  quarn::details::CallsOut("an intent's callback");
  listener.Invoke(&slot);
}

// Takes a step of an invocation. When memory runs out in it, here or at the application, no exception
// reaches the platform, which sees that the reply function goes unused.
template <class Step>
void OrLog(const Step& step) {
  try {
    step();
  } catch (const std::bad_alloc&) {
    QUARN_LOG_ERROR() << "Memory ran out for an intent: its invoker may get no answer.";
  }
}

}  // namespace

IntentManagerImpl::IntentManagerImpl(PrivateTag)
    : Object(quarn::IDispatcher::CreateEmpty()),
      dispatcher_(RuntimeManager::RuntimeDispatcher::instance()) {
  reply_connection_ = QObject::connect(
      &invoker_, &RuntimeManager::IntentsInvoker::replyReceived, &invoker_,
      [intents = GetRef()](const QJsonObject& reply, const RuntimeManager::Error& error) {
        IntentReplyHandler(intents, reply, error);
      },
      Qt::DirectConnection);
}

IntentManagerImpl::~IntentManagerImpl() { QObject::disconnect(reply_connection_); }

std::shared_ptr<IntentManagerImpl> IntentManagerImpl::Create() {
  auto intents = tarv::details::EmptyIfThrows([] { return Object::Create(PrivateTag()); });
  if (!intents) {
    QUARN_LOG_ERROR() << "Could not create Intent Manager.";
  }
  return intents;
}

QuarnResult IntentManagerImpl::HandleLoadProcTable(TARVIntentManagerProcTable* table,
                                                   std::size_t size) {
  if (table == nullptr) {
    QUARN_LOG_ERROR() << "Null table specified.";
    return QUARN_RESULT_INVALID_ARGUMENT;
  }
  quarn::StructFiller<TARVIntentManagerProcTable>(table, size)
      .Fill(&TARVIntentManagerProcTable::OpenUri, &HandleOpenUri)
      .Fill(&TARVIntentManagerProcTable::RegisterIntent, &HandleRegisterIntent);
  return QUARN_RESULT_SUCCESS;
}

QuarnResult IntentManagerImpl::HandleOpenUri(_TARVIntentManagerRef* intents, const char* uri,
                                             TARVOpenUriSlot* slot) {
  if (uri == nullptr || slot == nullptr) {
    QUARN_LOG_ERROR() << "No uri or callback slot provided.";
    return QUARN_RESULT_INVALID_ARGUMENT;
  }
  const auto self = FromRef(intents);
  if (!self) {
    QUARN_LOG_ERROR() << "Intent Manager is not initialized.";
    return QUARN_RESULT_REFUSED;
  }
  const quarn::CStyleListener<bool> listener(slot);
  self->OpenURI(uri, [listener](bool success) { listener.Invoke(success); });
  return QUARN_RESULT_SUCCESS;
}

QuarnResult IntentManagerImpl::HandleRegisterIntent(_TARVIntentManagerRef* intents,
                                                    const char* name,
                                                    TARVRegisterIntentSlot* slot) {
  if (name == nullptr || slot == nullptr) {
    QUARN_LOG_ERROR() << "No intent name or callback slot provided.";
    return QUARN_RESULT_INVALID_ARGUMENT;
  }
  const auto self = FromRef(intents);
  if (!self) {
    QUARN_LOG_ERROR() << "Intent Manager is not initialized.";
    return QUARN_RESULT_REFUSED;
  }
  const bool answers = quarn::ReadField(slot, &TARVRegisterIntentSlot::callback) != nullptr;
  const quarn::CStyleListener<TARVReplyIntentSlot*> listener(slot);
  self->RegisterIntent(name, [listener, answers](const QJsonObject&, SendReply send_reply) {
    // Without a callback nobody would release the reply: it goes at once, and the platform knows.
    if (answers) {
      OrLog([&] { AskApplication(listener, std::move(send_reply)); });
    }
  });
  return QUARN_RESULT_SUCCESS;
}

void IntentManagerImpl::OpenURI(const std::string& uri, Completion completion) {
  {
    const std::lock_guard lock(mutex_);
    replies_.push_back({kOpenUriIntent, {}, UriParameters(uri), std::move(completion)});
  }
  InvokeNext();
}

void IntentManagerImpl::RegisterIntent(const std::string& name, Handler handler) {
  dispatcher_->registerIntent(QString::fromStdString(name), std::move(handler));
}

void IntentManagerImpl::InvokeIntent(const std::string& name, const QJsonObject& first,
                                     const QJsonObject& second) {
  invoker_.invoke(QString::fromStdString(name), first, second);
}

// Replies are matched to requests by order alone: one request is in flight at a time.
// A completion may end the intent manager: what still waits is then discarded, not sent.
void IntentManagerImpl::IntentReplyHandler(_TARVIntentManagerRef* intents,
                                           const QJsonObject& /*reply*/,
                                           const RuntimeManager::Error& error) {
  const auto complete = [intents, &error] {
    if (const auto self = FromRef(intents)) {
      self->CompleteFront(error.code() == 0);
    }
  };
  const auto go_on = [intents] {
    if (const auto self = FromRef(intents)) {
      self->InvokeNext();
    }
  };
  quarn::details::AttemptAll(complete, go_on);
}

void IntentManagerImpl::CompleteFront(bool success) {
  std::optional<Reply> completed;
  {
    const std::lock_guard lock(mutex_);
    if (!replies_.empty()) {
      completed = std::move(replies_.front());
      replies_.pop_front();
    }
    busy_ = false;
  }
  if (completed && completed->completion) {
    quarn::details::CallsOut("a callback of OpenUri");
    completed->completion(success);
  }
}

// Always the front request: a completion that asks for another URI must not overtake those that
// wait.
void IntentManagerImpl::InvokeNext() {
  quarn::details::Attempts steps;
  while (!TryInvokeNext()) {
    steps.Run([this] { CompleteFront(false); });
  }
  steps.Finish();
}

// False when memory ran out for the request, which has failed thereby.
bool IntentManagerImpl::TryInvokeNext() {
  std::unique_lock lock(mutex_);
  if (replies_.empty() || busy_) {
    return true;
  }
  try {
    const Reply next{replies_.front().name, replies_.front().first, replies_.front().second, {}};
    busy_ = true;
    lock.unlock();
    InvokeIntent(next.name, next.first, next.second);
  } catch (const std::bad_alloc&) {
    return false;
  }
  return true;
}
