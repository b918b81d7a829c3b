#include "connections.h"

#include <fcntl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <QtCore/QObject>
#include <map>
#include <mutex>
#include <utility>

#include "activation.h"
#include "quiet_notifier.h"
#include "support.h"
#include "want_of_memory.h"

namespace RuntimeManager::host {
namespace {

// Descriptors come back when the process closes some; nobody tells when.
constexpr int kShortageRetryMs = 100;
// A process that cannot accept its first connection for so long is of no use to whoever waits there.
constexpr int kShortageLimitMs = 5000;
// Connections taken in one turn of the event loop.
constexpr int kAcceptsPerTurn = 64;
// A full queue means a task that does not run; it shall get some time to.
constexpr int kDialRetryMs = 20;
constexpr int kDialLimitMs = 5000;

bool IsShortage(int error_number) {
  return error_number == EMFILE || error_number == ENFILE || error_number == ENOBUFS ||
         error_number == ENOMEM;
}

// A failure that concerns one connection, not the socket.
bool IsPassing(int error_number) {
  return error_number == ECONNABORTED || error_number == EPERM || error_number == EINTR ||
         error_number == EPROTO;
}

bool IsListening(int socket) {
  int listening = 0;
  socklen_t size = sizeof(listening);
  return ::getsockopt(socket, SOL_SOCKET, SO_ACCEPTCONN, &listening, &size) == 0 && listening != 0;
}

bool SetNonBlocking(int descriptor) {
  const int flags = ::fcntl(descriptor, F_GETFL);
  return flags >= 0 && ::fcntl(descriptor, F_SETFL, flags | O_NONBLOCK) == 0;
}

}  // namespace

QString ProcessText(pid_t process) {
  return process == 0 ? QStringLiteral("a process of another pid namespace")
                      : QString("process %1").arg(process);
}

Error CheckPeer(int socket) {
  ucred peer{};
  socklen_t size = sizeof(peer);
  if (::getsockopt(socket, SOL_SOCKET, SO_PEERCRED, &peer, &size) != 0) {
    return SystemError(Error::kPeerRefused, "cannot tell whose the peer of a connection is", errno);
  }
  if (peer.uid == ::geteuid()) {
    return {};
  }
  return {Error::kPeerRefused,
          QString("a connection with %1 is refused: it belongs to the user with id %2, and only "
                  "user %3 may talk to this process")
              .arg(ProcessText(peer.pid))
              .arg(peer.uid)
              .arg(::geteuid())};
}

QJsonObject ConnectionFacts(int socket) {
  ucred peer{};
  socklen_t size = sizeof(peer);
  const bool known = ::getsockopt(socket, SOL_SOCKET, SO_PEERCRED, &peer, &size) == 0 &&
                     peer.pid != ::getpid() && peer.pid > 0;
  return known ? QJsonObject{{"process", peer.pid}} : QJsonObject();
}

bool IsOfFirstProcess(int listening, int socket) {
  static std::mutex mutex;
  static std::map<ino_t, pid_t> first_processes;  // by the listening sockets
  struct stat facts {};
  ucred peer{};
  socklen_t size = sizeof(peer);
  if (::fstat(listening, &facts) != 0 ||
      ::getsockopt(socket, SOL_SOCKET, SO_PEERCRED, &peer, &size) != 0) {
    return false;
  }
  const std::lock_guard lock(mutex);
  const auto [first, is_first] = first_processes.try_emplace(facts.st_ino, peer.pid);
  // Processes that cannot be seen here all have the number 0: none can prove that it is the first.
  if (is_first || (first->second == peer.pid && peer.pid != 0)) {
    return true;
  }
  Warn(QString("the task '%1': a connection with %2 is refused, because it serves %3")
           .arg(OwnTaskName(), ProcessText(peer.pid), ProcessText(first->second)));
  return false;
}

struct Acceptor::State : std::enable_shared_from_this<State> {
  void Open(int listening);
  void OnReadable();
  // Whether to go on accepting in this turn.
  bool AcceptOne();
  bool OnFailure(int error_number);
  void Pause(int error_number);
  bool IsHopeless();
  void GiveUp(int error_number);
  void Close();

  QString what;
  std::function<void(UniqueFd)> on_connection;
  std::function<void(const Error&)> on_failure;  // empty once a connection was accepted
  QElapsedTimer since_failure;                   // valid while nothing can be accepted
  int vain_turns = 0;                            // in a row
  UniqueFd socket;
  std::unique_ptr<QuietNotifier> readable;
  QTimer retry;
  Error error;
  bool shortage_warned = false;
};

void Acceptor::State::Open(int listening) {
  if (!IsListening(listening)) {
    error = {Error::kNotATask,
             QString("%1 cannot be served: descriptor %2 is not a listening socket")
                 .arg(what)
                 .arg(listening)};
    return;
  }
  socket.Reset(::fcntl(listening, F_DUPFD_CLOEXEC, 0));
  if (!socket.IsValid() || !SetNonBlocking(socket.Get())) {
    error = SystemError(
        Error::kConnectFailed,
        QString("cannot accept connections to %1 on descriptor %2").arg(what).arg(listening),
        errno);
    socket.Reset();
    return;
  }
  readable = std::make_unique<QuietNotifier>(socket.Get(), [this] { OnReadable(); });
  retry.setSingleShot(true);
  QObject::connect(&retry, &QTimer::timeout, &retry, [this] {
    if (readable != nullptr) {
      readable->SetEnabled(true);
    }
  });
}

void Acceptor::State::OnReadable() {
  const auto self = shared_from_this();
  ++vain_turns;
  for (int i = 0; i < kAcceptsPerTurn && socket.IsValid(); ++i) {
    if (!AcceptOne()) {
      return;
    }
  }
}

bool Acceptor::State::AcceptOne() {
  UniqueFd peer(::accept4(socket.Get(), nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK));
  const int error_number = errno;
  if (!peer.IsValid()) {
    bool goes_on = false;
    Attempt([&] { goes_on = OnFailure(error_number); });
    return goes_on;
  }
  shortage_warned = false;
  vain_turns = 0;
  since_failure.invalidate();
  on_failure = nullptr;
  const Error refusal = CheckPeer(peer.Get());
  if (refusal.isError()) {
    Warn(QString("%1: %2").arg(what, refusal.message()));
    return true;
  }
  on_connection(std::move(peer));
  return true;
}

bool Acceptor::State::OnFailure(int error_number) {
  if (error_number == EAGAIN && vain_turns < kMostVainTries) {
    return false;
  }
  if (IsPassing(error_number)) {
    return true;
  }
  if (IsHopeless()) {
    GiveUp(error_number);
  } else {
    Pause(error_number);
  }
  return false;
}

bool Acceptor::State::IsHopeless() {
  if (!since_failure.isValid()) {
    since_failure.start();
  }
  return on_failure && since_failure.hasExpired(kShortageLimitMs);
}

void Acceptor::State::GiveUp(int error_number) {
  const Error failure = SystemError(Error::kConnectFailed,
                                    QString("no connection to %1 could be accepted for %2 s")
                                        .arg(what)
                                        .arg(kShortageLimitMs / 1000),
                                    error_number);
  Close();
  std::exchange(on_failure, nullptr)(failure);
}

void Acceptor::State::Pause(int error_number) {
  if (!std::exchange(shortage_warned, true)) {
    Warn(QString("a connection to %1 has to wait, because it cannot be accepted: %2%3")
             .arg(what, ErrnoText(error_number),
                  IsShortage(error_number) ? "; it is tried again until there is room"
                                           : "; it is tried again"));
  }
  readable->SetEnabled(false);
  StartTimer(retry, kShortageRetryMs);
}

void Acceptor::State::Close() {
  retry.stop();
  if (readable != nullptr) {
    readable->SetEnabled(false);
  }
  socket.Reset();
}

Acceptor::Acceptor(QString what, int listening, std::function<void(UniqueFd)> on_connection)
    : Acceptor(std::move(what), listening, std::move(on_connection), nullptr) {}

Acceptor::Acceptor(QString what, int listening, std::function<void(UniqueFd)> on_connection,
                   std::function<void(const Error&)> on_failure)
    : state_(std::make_shared<State>()) {
  state_->what = std::move(what);
  state_->on_connection = std::move(on_connection);
  state_->on_failure = std::move(on_failure);
  state_->Open(listening);
}

Acceptor::~Acceptor() { state_->Close(); }

Error Acceptor::GetError() const { return state_->error; }

int Acceptor::GetSocket() const { return state_->socket.Get(); }

struct Dialer::State : std::enable_shared_from_this<State> {
  // Reports success only; whatever else there is to report, the next try does, from the event loop.
  void TryAtOnce();
  void Try();
  void TryOrFail();
  Error Failure(int error_number) const;
  void Finish(UniqueFd socket, const Error& error, int error_number);

  QString what;
  Connect connect;
  Done done;
  QTimer retry;
  QElapsedTimer since;
  Error refusal;  // of a peer that the first try has met
};

void Dialer::State::TryAtOnce() {
  int error_number = 0;
  UniqueFd socket = connect(&error_number);
  if (socket.IsValid()) {
    refusal = CheckPeer(socket.Get());
    if (!refusal.isError()) {
      Finish(std::move(socket), {}, 0);
      return;
    }
  }
  StartTimer(retry, error_number == EAGAIN ? kDialRetryMs : 0);
}

void Dialer::State::Try() {
  const auto self = shared_from_this();
  if (refusal.isError()) {
    Finish({}, refusal, 0);
    return;
  }
  int error_number = 0;
  UniqueFd socket = connect(&error_number);
  if (socket.IsValid()) {
    refusal = CheckPeer(socket.Get());
    if (refusal.isError()) {
      socket.Reset();
    }
    Finish(std::move(socket), refusal, 0);
    return;
  }
  if (error_number == EAGAIN && since.elapsed() < kDialLimitMs) {
    StartTimer(retry, kDialRetryMs);
    return;
  }
  Finish({}, Failure(error_number), error_number);
}

void Dialer::State::TryOrFail() {
  const auto self = shared_from_this();
  if (!Attempt([this] { Try(); })) {
    Finish({}, OutOfMemory(Error::kConnectFailed), ENOMEM);
  }
}

Error Dialer::State::Failure(int error_number) const {
  Error error =
      SystemError(Error::kConnectFailed, QString("cannot connect to '%1'").arg(what), error_number);
  if (error_number != EAGAIN) {
    return error;
  }
  return {error.code(), error.message() + QString("; its queue has been full for %1 s, so its "
                                                  "process does not accept connections")
                                              .arg(kDialLimitMs / 1000)};
}

void Dialer::State::Finish(UniqueFd socket, const Error& error, int error_number) {
  if (!done) {
    return;
  }
  const Done call = std::exchange(done, nullptr);
  call(std::move(socket), error, error_number);
}

Dialer::Dialer(QString what, Connect connect, Done done) : state_(std::make_shared<State>()) {
  state_->what = std::move(what);
  state_->connect = std::move(connect);
  state_->done = std::move(done);
  state_->since.start();
  state_->retry.setSingleShot(true);
  QObject::connect(&state_->retry, &QTimer::timeout, &state_->retry,
                   [state = state_.get()] { state->TryOrFail(); });
  state_->TryAtOnce();
}

Dialer::~Dialer() {
  state_->retry.stop();
  state_->done = nullptr;
}

}  // namespace RuntimeManager::host
