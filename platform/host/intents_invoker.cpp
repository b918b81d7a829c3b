#include <RuntimeManager/IntentsInvoker.h>

#include <QtCore/QPointer>
#include <set>
#include <utility>

#include "connections.h"
#include "intent_owner.h"
#include "line_channel.h"
#include "socket_folder.h"
#include "support.h"
#include "uri_opener.h"

namespace RuntimeManager {
namespace host {
namespace {

const QString kOpenUri = QStringLiteral("OpenURI");

// One invocation, from the connection to the reply. It lives on while its end is told.
class Call : public std::enable_shared_from_this<Call> {
 public:
  using Done = std::function<void(const QJsonObject&, const Error&)>;

  Call(QString name, const QJsonObject& second, Done done)
      : name_(std::move(name)), second_(second), done_(std::move(done)) {}
  void Open(const QJsonObject& first);
  void Close();

 private:
  UniqueFd Connect(int* error_number);
  void OnDialed(UniqueFd socket, const Error& error, int error_number);
  void OnObject(const QJsonObject& object);
  void OnEnd();
  void Fail(Error::Code code, const QString& why);
  void Finish(const QJsonObject& reply, const Error& error);

  const QString name_;
  const QJsonObject second_;
  Done done_;
  Error folder_error_;
  std::shared_ptr<LineChannel> channel_;
  std::unique_ptr<Dialer> dialer_;
  std::unique_ptr<UriOpener> opener_;
};

void Call::Open(const QJsonObject& first) {
  LineChannel::Callbacks callbacks;
  callbacks.on_object = [this](const QJsonObject& object) { OnObject(object); };
  callbacks.on_end = [this](const Error& error) {
    if (error.code() == Error::kConnectionLost) {
      OnEnd();
      return;
    }
    Fail(Error::Code(error.code()), error.message());
  };
  channel_ = std::make_shared<LineChannel>(
      IntentTitle(name_), QString("the owner of the intent '%1'").arg(name_), std::move(callbacks));
  channel_->Send({{intent::kFirst, first}, {intent::kSecond, second_}});
  dialer_ = std::make_unique<Dialer>(
      IntentTitle(name_), [this](int* error_number) { return Connect(error_number); },
      [this](UniqueFd socket, const Error& error, int error_number) {
        OnDialed(std::move(socket), error, error_number);
      });
}

void Call::Close() {
  done_ = nullptr;
  dialer_.reset();
  opener_.reset();
  channel_->Close();
}

UniqueFd Call::Connect(int* error_number) {
  folder_error_ = {};
  const SocketFolder folder = SocketFolder::OpenIntents(&folder_error_);
  if (folder.IsValid()) {
    return folder.Connect(name_, error_number);
  }
  *error_number = EACCES;
  return {};
}

void Call::OnDialed(UniqueFd socket, const Error& error, int error_number) {
  if (socket.IsValid()) {
    channel_->Attach(std::move(socket));
    return;
  }
  if (folder_error_.isError()) {
    Finish({}, folder_error_);
    return;
  }
  if (error_number != ENOENT && error_number != ECONNREFUSED) {
    Finish({}, error);
    return;
  }
  if (name_ != kOpenUri) {
    Fail(Error::kNoSuchIntent, "no live process owns it");
    return;
  }
  opener_ = std::make_unique<UriOpener>(second_.value(QStringLiteral("uri")).toString(),
                                        [this](const Error& outcome) { Finish({}, outcome); });
}

void Call::OnObject(const QJsonObject& object) {
  const QJsonValue reply = object.value(intent::kReply);
  if (reply.isObject()) {
    Finish(reply.toObject(), {});
    return;
  }
  const QString why = object.value(intent::kError).toString();
  Fail(Error::kIntentFailed, why.isEmpty() ? QString("its owner's answer makes no sense") : why);
}

void Call::OnEnd() { Fail(Error::kIntentFailed, "its owner ended before it answered"); }

void Call::Fail(Error::Code code, const QString& why) {
  Finish({}, {code, QString("the intent '%1' failed: %2").arg(name_, why)});
}

void Call::Finish(const QJsonObject& reply, const Error& error) {
  const auto self = shared_from_this();
  channel_->Close();
  if (const auto done = std::exchange(done_, nullptr)) {
    done(reply, error);
  }
}

}  // namespace
}  // namespace host

class IntentsInvoker::Private {
 public:
  Private() = default;
  ~Private() {
    for (const auto& call : calls) {
      call->Close();
    }
  }
  Private(const Private&) = delete;
  Private& operator=(const Private&) = delete;

  std::set<std::shared_ptr<host::Call>> calls;
};

IntentsInvoker::IntentsInvoker(QObject* parent) : QObject(parent), d_(std::make_unique<Private>()) {
  qRegisterMetaType<RuntimeManager::Error>();
}

IntentsInvoker::~IntentsInvoker() = default;

void IntentsInvoker::invoke(const QString& name, const QJsonObject& first,
                            const QJsonObject& second) {
  const Error bad_name = host::CheckName("an intent", name, host::kMaxIntentName);
  if (bad_name.isError()) {
    host::Post(this, [this, bad_name] { Q_EMIT replyReceived({}, bad_name); });
    return;
  }
  auto slot = std::make_shared<std::weak_ptr<host::Call>>();
  const auto call = std::make_shared<host::Call>(
      name, second, [this, slot](const QJsonObject& reply, const Error& error) {
        d_->calls.erase(slot->lock());
        Q_EMIT replyReceived(reply, error);
      });
  *slot = call;
  d_->calls.insert(call);
  call->Open(first);
}

}  // namespace RuntimeManager
