#include "stderr_relay.h"

#include <poll.h>
#include <pthread.h>

#include <array>
#include <climits>
#include <csignal>
#include <ctime>

#include "support.h"

namespace RuntimeManager::host {
namespace {

// A pipe that can be written to at all takes that much without blocking.
constexpr int kChunk = PIPE_BUF;
constexpr int kChunksPerTurn = 32;
// Enough for the message and the backtrace of a program that dies.
constexpr int kTailBytes = 8192;
constexpr int kTailLines = 20;
// How often a standard error that takes nothing is tried again.
constexpr int kRetryMs = 50;
// What a dead task can have left in its pipe, which is bounded by the kernel.
constexpr int kChunksAtTheEnd = 256;

// Keeps a write to a pipe without a reader from killing the process, for its scope and thread only:
// the application's disposition of SIGPIPE stays as it is.
class SigpipeGuard {
 public:
  SigpipeGuard() {
    ::sigemptyset(&sigpipe_);
    ::sigaddset(&sigpipe_, SIGPIPE);
    sigset_t pending;
    ::sigpending(&pending);
    was_pending_ = ::sigismember(&pending, SIGPIPE) == 1;
    ::pthread_sigmask(SIG_BLOCK, &sigpipe_, &before_);
  }
  ~SigpipeGuard() {
    const timespec at_once{};
    // Takes back the signal that the write raised, but none that waited before.
    if (!was_pending_)
      RetryOnEintr([this, &at_once] { return ::sigtimedwait(&sigpipe_, nullptr, &at_once); });
    ::pthread_sigmask(SIG_SETMASK, &before_, nullptr);
  }
  SigpipeGuard(const SigpipeGuard&) = delete;
  SigpipeGuard& operator=(const SigpipeGuard&) = delete;

 private:
  sigset_t sigpipe_{};
  sigset_t before_{};
  bool was_pending_ = false;
};

bool TakesBytes(int descriptor) {
  pollfd state{descriptor, POLLOUT, 0};
  return RetryOnEintr([&state] { return ::poll(&state, 1, 0); }) > 0;
}

ssize_t WriteQuietly(int descriptor, const QByteArray& bytes) {
  const SigpipeGuard guard;
  const ssize_t written = RetryOnEintr([descriptor, &bytes] {
    return ::write(descriptor, bytes.constData(), static_cast<std::size_t>(bytes.size()));
  });
  // The guard's own calls must not change what the caller reads.
  return written < 0 ? -errno : written;
}

}  // namespace

StderrRelay::StderrRelay(UniqueFd pipe) : pipe_(std::move(pipe)) {
  if (!pipe_.IsValid()) return;
  readable_ = std::make_unique<QuietNotifier>(pipe_.Get(), [this] { OnReadable(); });
  resume_.setSingleShot(true);
  QObject::connect(&resume_, &QTimer::timeout, &resume_, [this] { OnReadable(); });
}

void StderrRelay::OnReadable() {
  for (int i = 0; i < kChunksPerTurn && pipe_.IsValid(); ++i) {
    Forward();
    if (!pending_.isEmpty()) break;
    if (!ReadChunk()) return SetReading(pipe_.IsValid());
  }
  Forward();
  const bool stuck = !pending_.isEmpty();
  SetReading(!stuck && pipe_.IsValid());
  if (stuck) resume_.start(kRetryMs);
}

bool StderrRelay::ReadChunk() {
  std::array<char, kChunk> chunk{};
  const ssize_t size =
      RetryOnEintr([this, &chunk] { return ::read(pipe_.Get(), chunk.data(), chunk.size()); });
  if (size < 0 && errno == EAGAIN) return false;
  if (size <= 0) {
    Close();
    return false;
  }
  const QByteArray bytes(chunk.data(), static_cast<int>(size));
  Remember(bytes);
  if (forwards_) pending_ += bytes;
  return true;
}

void StderrRelay::Remember(const QByteArray& chunk) {
  tail_ += chunk;
  if (tail_.size() > 2 * kTailBytes) tail_ = tail_.right(kTailBytes);
}

void StderrRelay::Forward() {
  if (pending_.isEmpty() || !TakesBytes(STDERR_FILENO)) return;
  const ssize_t written = WriteQuietly(STDERR_FILENO, pending_);
  if (written >= 0) {
    pending_.remove(0, static_cast<int>(written));
  } else if (written != -EAGAIN) {
    // Nobody reads this process's standard error any more.
    forwards_ = false;
    pending_.clear();
  }
}

void StderrRelay::SetReading(bool enabled) {
  if (readable_ != nullptr) readable_->SetEnabled(enabled);
}

void StderrRelay::Close() {
  SetReading(false);
  pipe_.Reset();
}

void StderrRelay::Finish() {
  resume_.stop();
  for (int i = 0; i < kChunksAtTheEnd && pipe_.IsValid(); ++i) {
    Forward();
    if (!ReadChunk()) break;
  }
  Forward();
  Close();
}

QString StderrRelay::LastLines() const {
  QByteArray text = tail_.right(kTailBytes);
  while (text.endsWith('\n')) text.chop(1);
  int start = text.size();
  for (int line = 0; line < kTailLines && start >= 0; ++line) {
    start = start == 0 ? -1 : text.lastIndexOf('\n', start - 1);
  }
  return QString::fromUtf8(text.mid(start + 1));
}

}  // namespace RuntimeManager::host
