#include "intent_owner.h"

#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

#include <QtCore/QThread>
#include <atomic>
#include <new>
#include <utility>

#include "line_channel.h"
#include "process_exit.h"
#include "support.h"
#include "uri_opener.h"
#include "want_of_memory.h"

namespace RuntimeManager::host {
namespace {

// A process holds this lock only while it takes a name, which waits for nothing. No intent's name
// begins with a dot.
constexpr char kLockFile[] = ".lock";
constexpr mode_t kLockMode = 0600;
constexpr int kLockTries = 100;
constexpr int kLockRetryMs = 10;

UniqueFd LockFolder(const SocketFolder& folder, Error* error) {
  UniqueFd lock(::openat(folder.Descriptor(), kLockFile, O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW,
                         kLockMode));
  int result = lock.IsValid() ? ::flock(lock.Get(), LOCK_EX | LOCK_NB) : -1;
  for (int i = 0; i < kLockTries && result != 0 && errno == EWOULDBLOCK; ++i) {
    QThread::msleep(kLockRetryMs);
    result = ::flock(lock.Get(), LOCK_EX | LOCK_NB);
  }
  if (result == 0) {
    return lock;
  }
  const QString why =
      errno == EWOULDBLOCK
          ? QString("another process has held it for %1 ms").arg(kLockTries * kLockRetryMs)
          : ErrnoText(errno);
  *error = {Error::kRuntimeFolder,
            QString("cannot lock '%1': %2").arg(folder.PathOf(kLockFile), why)};
  return {};
}

// Makes `name` free: false, with `error` set, when somebody listens there. Under the lock.
bool FreeName(const SocketFolder& folder, const QString& name, Error* error) {
  const int error_number = folder.Probe(name);
  if (error_number == ENOENT) {
    return true;
  }
  if (error_number == ECONNREFUSED) {
    folder.Remove(name);
    return true;
  }
  *error = error_number == 0
               ? Error(Error::kWrongState, "a live process owns it already, and keeps it")
               : SystemError(Error::kRuntimeFolder,
                             QString("cannot tell who owns '%1'").arg(folder.PathOf(name)),
                             error_number);
  return false;
}

UniqueFd ClaimName(const SocketFolder& folder, const QString& name, Error* error) {
  const UniqueFd lock = LockFolder(folder, error);
  if (!lock.IsValid() || !FreeName(folder, name, error)) {
    return {};
  }
  return folder.Listen(name, error);
}

}  // namespace

// One connection of an invoker: a line with both objects, and the line with the answer.
class IntentOwner::Invocation : public std::enable_shared_from_this<Invocation> {
 public:
  explicit Invocation(IntentOwner* owner) : owner_(owner) {}
  void Open(UniqueFd socket);
  void Send(const QJsonObject& answer);
  // The invoker sees that there is no answer to come.
  void Drop();

 private:
  void OnObject(const QJsonObject& object);
  void Prepare(const QJsonObject& object, QJsonObject* parameters,
               std::function<void(const QJsonObject&)>* reply);
  void OnEnd();

  IntentOwner* owner_;
  std::shared_ptr<LineChannel> channel_;
  bool invoked_ = false;
};

namespace {

// All copies of one reply function share this. It answers once: with the first reply, or, when the
// last copy is destroyed, by saying that there will be no reply.
template <typename Invocation>
class Answer {
 public:
  Answer(std::weak_ptr<Invocation> invocation, QObject* context, QString name)
      : invocation_(std::move(invocation)), context_(context), name_(std::move(name)) {}
  Answer(const Answer&) = delete;
  Answer& operator=(const Answer&) = delete;
  ~Answer() {
    if (!answered_) {
      TellThereIsNone();
    }
  }

  // When memory runs out for the answer, there may be another one.
  void Reply(const QJsonObject& reply) {
    if (!answered_.exchange(true)) {
      try {
        Send({{intent::kReply, reply}});
      } catch (const std::bad_alloc&) {
        answered_ = false;
        throw;
      }
      return;
    }
    Warn(QString("a second reply to the intent '%1' is dropped").arg(name_));
  }

 private:
  // When memory runs out for the words, the invoker sees the end of the connection.
  void TellThereIsNone() {
    const bool told = Attempt([this] {
      Send({{intent::kError,
             QString("the owner of the intent '%1' let it go without an answer").arg(name_)}});
    });
    const auto live = told || !IsInItsThread() ? nullptr : invocation_.lock();
    if (live != nullptr) {
      live->Drop();
    }
  }

  bool IsInItsThread() const { return context_->thread() == QThread::currentThread(); }

  // The connection belongs to the owner's thread.
  void Send(const QJsonObject& answer) {
    const auto send = [invocation = invocation_, answer] {
      if (const auto live = invocation.lock()) {
        live->Send(answer);
      }
    };
    if (IsInItsThread()) {
      send();
      return;
    }
    Post(context_, send);
  }

  const std::weak_ptr<Invocation> invocation_;
  QObject* const context_;
  const QString name_;
  std::atomic<bool> answered_{false};
};

}  // namespace

void IntentOwner::Invocation::Open(UniqueFd socket) {
  LineChannel::Callbacks callbacks;
  callbacks.on_object = [this](const QJsonObject& object) { OnObject(object); };
  callbacks.on_end = [this](const Error& /*error*/) { OnEnd(); };
  channel_ = std::make_shared<LineChannel>(
      IntentTitle(owner_->name_), QString("an invoker of the intent '%1'").arg(owner_->name_),
      std::move(callbacks));
  channel_->Attach(std::move(socket));
}

void IntentOwner::Invocation::OnObject(const QJsonObject& object) {
  const auto self = shared_from_this();
  if (std::exchange(invoked_, true)) {
    return;
  }
  QJsonObject parameters;
  std::function<void(const QJsonObject&)> reply;
  if (!Attempt([&] { Prepare(object, &parameters, &reply); })) {
    Drop();
    return;
  }
  if (!reply || !owner_->handler_) {
    return;
  }
  // Whom memory fails in a handler cannot say what it has cost.
  if (!Attempt([&] { owner_->handler_(parameters, std::move(reply)); })) {
    Drop();
  }
}

// An answer that is too large for one message ends in an error that says so.
void IntentOwner::Invocation::Send(const QJsonObject& answer) {
  if (channel_->SendIfItFits(answer)) {
    return;
  }
  const QString why = QString("is over the bound of %1 bytes that RUNTIME_MANAGER_MAX_MESSAGE sets")
                          .arg(channel_->GetMostBytesOfAMessage());
  Warn(QString("the reply to the intent '%1' %2").arg(owner_->name_, why));
  channel_->Send({{intent::kError, QString("its owner's reply %1").arg(why)}});
}

// Makes what the handler gets; no reply when it shall not be called.
void IntentOwner::Invocation::Prepare(const QJsonObject& object, QJsonObject* parameters,
                                      std::function<void(const QJsonObject&)>* reply) {
  *parameters = object.value(intent::kSecond).toObject();
  const Error refusal = CheckParameters(owner_->name_, *parameters);
  if (refusal.isError()) {
    Send({{intent::kError, refusal.message()}});
    return;
  }
  auto answer =
      std::make_shared<Answer<Invocation>>(weak_from_this(), &owner_->context_, owner_->name_);
  *reply = [answer = std::move(answer)](const QJsonObject& result) { answer->Reply(result); };
}

void IntentOwner::Invocation::OnEnd() { owner_->invocations_.erase(shared_from_this()); }

void IntentOwner::Invocation::Drop() {
  const auto self = weak_from_this().lock();
  if (channel_ != nullptr) {
    channel_->Close();
  }
  OnEnd();
}

Error CheckParameters(const QString& name, const QJsonObject& parameters) {
  return name == intent::kOpenUri ? CheckUri(parameters.value(intent::kUri).toString()) : Error();
}

Error CheckIntent(const QString& name) {
  Error refusal = CheckOriginal();
  return refusal.isError() ? refusal : CheckName("an intent", name, kMaxIntentName);
}

std::unique_ptr<IntentOwner> IntentOwner::Register(const QString& name,
                                                   RuntimeDispatcher::IntentHandler handler,
                                                   Error* error) {
  *error = CheckIntent(name);
  if (error->isError()) {
    return nullptr;
  }
  const SocketFolder folder = SocketFolder::OpenIntents(error);
  if (!folder.IsValid()) {
    return nullptr;
  }
  const UniqueFd socket = ClaimName(folder, name, error);
  if (!socket.IsValid()) {
    return nullptr;
  }
  SocketFile file(folder.PathOf(name));
  std::unique_ptr<IntentOwner> owner(
      new IntentOwner(name, std::move(handler), std::move(file), socket.Get()));
  *error = owner->acceptor_.GetError();
  if (error->isError()) {
    return nullptr;
  }
  return owner;
}

IntentOwner::IntentOwner(QString name, RuntimeDispatcher::IntentHandler handler, SocketFile file,
                         int listening)
    : name_(std::move(name)),
      handler_(std::move(handler)),
      file_(std::move(file)),
      acceptor_(QString("the intent '%1'").arg(name_), listening,
                [this](UniqueFd socket) { OnConnection(std::move(socket)); }) {}

void IntentOwner::OnConnection(UniqueFd socket) {
  std::shared_ptr<Invocation> invocation;
  const bool opened = Attempt([&] {
    invocation = std::make_shared<Invocation>(this);
    invocations_.insert(invocation);
    invocation->Open(std::move(socket));
  });
  if (!opened && invocation != nullptr) {
    invocation->Drop();
  }
}

}  // namespace RuntimeManager::host
