#include <RuntimeManager/IntentsInvoker.h>
#include <sys/socket.h>

#include <QtCore/QFile>
#include <QtCore/QTimer>
#include <chrono>
#include <set>
#include <utility>

#include "connections.h"
#include "intent_owner.h"
#include "line_channel.h"
#include "socket_folder.h"
#include "support.h"
#include "uri_opener.h"
#include "want_of_memory.h"

namespace RuntimeManager {
namespace host {
namespace {

constexpr int kShownOfOwnersText = 1000;

std::chrono::seconds Timeout() { return std::chrono::seconds(NumberFrom(kIntentTimeoutRule)); }

Error CheckInvocation(const QString& name, const QJsonObject& second) {
  const Error refusal = CheckIntent(name);
  return refusal.isError() ? refusal : CheckParameters(name, second);
}

// "process 12 ('player')"
QString PeerText(int socket) {
  ucred peer{};
  socklen_t size = sizeof(peer);
  if (::getsockopt(socket, SOL_SOCKET, SO_PEERCRED, &peer, &size) != 0 || peer.pid == 0) {
    return ProcessText(0);
  }
  QFile name(QString("/proc/%1/comm").arg(peer.pid));
  const QByteArray comm = name.open(QIODevice::ReadOnly) ? name.readAll().trimmed() : "gone";
  return QString("%1 ('%2')").arg(ProcessText(peer.pid), Escaped(comm));
}

// One invocation, from the connection to the reply. It stays alive while it reports its end.
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
  void OnEnd(const Error& error);
  void OnTimeout();
  // From the event loop: a call that memory runs out for fails, as it does for other reasons.
  template <class Step>
  void OrFail(const Step& step) {
    const auto self = shared_from_this();
    if (!Attempt(step)) {
      Finish({}, OutOfMemory(Error::kIntentFailed));
    }
  }
  void Fail(Error::Code code, const QString& why);
  void Finish(const QJsonObject& reply, const Error& error);

  const QString name_;
  const QJsonObject second_;
  Done done_;
  Error folder_error_;
  const std::chrono::seconds timeout_ = Timeout();
  QString owner_ = "a process that takes no connection";
  QTimer limit_;
  std::shared_ptr<LineChannel> channel_;
  std::unique_ptr<Dialer> dialer_;
  std::unique_ptr<UriOpener> opener_;
};

void Call::Open(const QJsonObject& first) {
  limit_.setSingleShot(true);
  QObject::connect(&limit_, &QTimer::timeout, &limit_, [this] { OrFail([this] { OnTimeout(); }); });
  StartTimer(limit_, timeout_);
  LineChannel::Callbacks callbacks;
  callbacks.on_object = [this](const QJsonObject& object) {
    OrFail([this, &object] { OnObject(object); });
  };
  callbacks.on_end = [this](const Error& error) { OrFail([this, &error] { OnEnd(error); }); };
  channel_ = std::make_shared<LineChannel>(
      IntentTitle(name_), QString("the owner of the intent '%1'").arg(name_), std::move(callbacks));
  channel_->Send({{intent::kFirst, first}, {intent::kSecond, second_}});
  dialer_ = std::make_unique<Dialer>(
      IntentTitle(name_), [this](int* error_number) { return Connect(error_number); },
      [this](UniqueFd socket, const Error& error, int error_number) {
        OrFail([&] { OnDialed(std::move(socket), error, error_number); });
      });
}

void Call::Close() {
  done_ = nullptr;
  limit_.stop();
  dialer_.reset();
  opener_.reset();
  if (channel_ != nullptr) {
    channel_->Close();
  }
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
    owner_ = PeerText(socket.Get());
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
  if (name_ != intent::kOpenUri) {
    Fail(Error::kNoSuchIntent, "no live process owns it");
    return;
  }
  limit_.stop();
  opener_ = std::make_unique<UriOpener>(second_.value(intent::kUri).toString(),
                                        [this](const Error& outcome) { Finish({}, outcome); });
}

void Call::OnObject(const QJsonObject& object) {
  const QJsonValue reply = object.value(intent::kReply);
  if (reply.isObject()) {
    Finish(reply.toObject(), {});
    return;
  }
  const QString why =
      EscapedHead(object.value(intent::kError).toString().toUtf8(), kShownOfOwnersText);
  Fail(Error::kIntentFailed, why.isEmpty() ? QString("its owner's answer makes no sense") : why);
}

void Call::OnEnd(const Error& error) {
  if (error.code() != Error::kConnectionLost) {
    Fail(Error::Code(error.code()), error.message());
    return;
  }
  Fail(Error::kIntentFailed, QString("its owner, %1, ended before it answered").arg(owner_));
}

void Call::OnTimeout() {
  Fail(Error::kIntentFailed,
       QString("its owner, %1, has not answered for %2 s (RUNTIME_MANAGER_INTENT_TIMEOUT sets "
               "another limit)")
           .arg(owner_)
           .arg(timeout_.count()));
}

void Call::Fail(Error::Code code, const QString& why) {
  Finish({}, {code, QString("the intent '%1' failed: %2").arg(name_, why)});
}

void Call::Finish(const QJsonObject& reply, const Error& error) {
  const auto self = shared_from_this();
  limit_.stop();
  if (channel_ != nullptr) {
    channel_->Close();
  }
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
  const Error refusal = host::CheckInvocation(name, second);
  if (refusal.isError()) {
    host::Post(this, [this, refusal] { Q_EMIT replyReceived({}, refusal); });
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
  try {
    call->Open(first);
  } catch (...) {
    call->Close();
    d_->calls.erase(call);
    throw;
  }
}

}  // namespace RuntimeManager
