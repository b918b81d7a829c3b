#include "stderr_relay.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <QtCore/QElapsedTimer>
#include <algorithm>
#include <array>
#include <atomic>
#include <climits>
#include <utility>

#include "sigpipe_guard.h"
#include "support.h"
#include "want_of_memory.h"

namespace RuntimeManager::host {
namespace {

// A pipe that takes anything takes this much without blocking.
constexpr int kChunk = PIPE_BUF;
constexpr int kChunksPerTurn = 32;
// Enough for the message and the backtrace of a program that dies.
constexpr int kTailBytes = 8192;
constexpr int kTailLines = 20;
// How often a standard error that takes nothing is tried again.
constexpr int kRetryMs = 50;
// How often in a row it may say that it takes something, and not take it: a second of tries.
constexpr int kMostVainWrites = 20;
// A dead task has left no more in its pipe: the kernel bounds it.
constexpr int kChunksAtTheEnd = 256;
// Dead tasks whose rest waits for a standard error that takes nothing: about what the pipes of so
// many tasks hold, however many come and go meanwhile.
constexpr int kMostBacklogs = 64;

std::atomic<int> backlogs{0};
// A wait for standard error was in vain, and it has taken nothing since: nobody waits again.
std::atomic<bool> given_up{false};

// Opens a pipe or terminal again, in a mode in which no write waits. The mode of the descriptor
// itself is shared with other processes, so it stays. Invalid for anything else, and where opening
// is not allowed.
UniqueFd OpenNonBlocking(int descriptor) {
  struct stat facts {};
  if (::fstat(descriptor, &facts) != 0) {
    return {};
  }
  if (!S_ISFIFO(facts.st_mode) && ::isatty(descriptor) == 0) {
    return {};
  }
  const QByteArray path = "/proc/self/fd/" + QByteArray::number(descriptor);
  return UniqueFd(::open(path.constData(), O_WRONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC));
}

// Writes a chunk at most, which does not block even on a pipe that could not be opened again.
ssize_t WriteChunk(int descriptor, const QByteArray& bytes) {
  const SigpipeGuard guard;
  const auto size = static_cast<std::size_t>(std::min(bytes.size(), kChunk));
  const ssize_t written = RetryOnEintr(
      [descriptor, &bytes, size] { return ::write(descriptor, bytes.constData(), size); });
  // The guard's own calls must not change what the caller reads.
  return written < 0 ? -errno : written;
}

// The file of the user's that gets a copy of what tasks write; invalid when none is wanted, and,
// after a warning, when it cannot be used.
UniqueFd OpenCopy(const QString& task) {
  const QByteArray path = Variable("RUNTIME_MANAGER_STDERR");
  if (path.isEmpty()) {
    return {};
  }
  constexpr int kFlags = O_WRONLY | O_APPEND | O_CREAT | O_NOFOLLOW | O_CLOEXEC | O_NOCTTY |
                         O_NONBLOCK;  // a pipe without a reader is no file
  UniqueFd file(::open(path.constData(), kFlags, 0600));
  if (!file.IsValid()) {
    Warn(QString("the standard error of the task '%1' is not copied: RUNTIME_MANAGER_STDERR '%2' "
                 "cannot be opened: %3")
             .arg(task, QString::fromUtf8(path), ErrnoText(errno)));
  }
  return file;
}

}  // namespace

StderrRelay::StderrRelay(QString task, UniqueFd pipe)
    : task_(std::move(task)), pipe_(std::move(pipe)) {
  if (!pipe_.IsValid()) {
    return;
  }
  copy_ = OpenCopy(task_);
  readable_ = std::make_unique<QuietNotifier>(pipe_.Get(), [this] {
    ++vain_reads_;
    OnEvent();
  });
  resume_.setSingleShot(true);
  QObject::connect(&resume_, &QTimer::timeout, &resume_, [this] { OnEvent(); });
}

StderrRelay::~StderrRelay() {
  if (keeps_backlog_) {
    --backlogs;
  }
}

void StderrRelay::OnEvent() {
  // What memory runs out for is missing among the lines.
  Attempt([this] { Pump(); });
  SetReading(!HasPending() && pipe_.IsValid());
  if (HasPending() && Attempt([this] { StartTimer(resume_, kRetryMs); })) {
    return;
  }
  const auto on_forwarded = std::exchange(on_forwarded_, nullptr);
  if (on_forwarded) {
    on_forwarded();
  }
}

void StderrRelay::Pump() {
  Forward();
  for (int i = 0; i < kChunksPerTurn && !HasPending() && ReadChunk(); ++i) {
    Forward();
  }
}

bool StderrRelay::ReadChunk() {
  if (!pipe_.IsValid()) {
    return false;
  }
  std::array<char, kChunk> chunk{};
  const ssize_t size =
      RetryOnEintr([this, &chunk] { return ::read(pipe_.Get(), chunk.data(), chunk.size()); });
  if (size < 0 && errno == EAGAIN && vain_reads_ < kMostVainTries) {
    return false;
  }
  vain_reads_ = 0;
  if (size <= 0) {
    Close();
    return false;
  }
  const QByteArray bytes(chunk.data(), static_cast<int>(size));
  Remember(bytes);
  Copy(bytes);
  if (forwards_) {
    pending_ += bytes;
  }
  return true;
}

void StderrRelay::Remember(const QByteArray& chunk) {
  tail_ += chunk;
  if (tail_.size() > 2 * kTailBytes) {
    tail_ = tail_.right(kTailBytes);
  }
}

// A file that takes no more gets no more.
void StderrRelay::Copy(const QByteArray& chunk) {
  if (!copy_.IsValid()) {
    return;
  }
  const SigpipeGuard guard;
  const auto size = static_cast<std::size_t>(chunk.size());
  const ssize_t written =
      RetryOnEintr([&] { return ::write(copy_.Get(), chunk.constData(), size); });
  if (written != chunk.size()) {
    const QString why = written < 0 ? ErrnoText(errno) : QStringLiteral("a line was cut short");
    Warn(QString("the copy of the standard error of the task '%1' in RUNTIME_MANAGER_STDERR ends "
                 "here: %2")
             .arg(task_, why));
    copy_.Reset();
  }
}

void StderrRelay::Forward() {
  if (!HasPending()) {
    return;
  }
  const UniqueFd non_blocking = OpenNonBlocking(STDERR_FILENO);
  const bool may_block = !non_blocking.IsValid();
  const int target = may_block ? STDERR_FILENO : non_blocking.Get();
  while (HasPending() && (!may_block || TakesBytes(target, 0))) {
    const ssize_t written = WriteChunk(target, pending_);
    if (written == -EAGAIN && !IsBroken(target)) {
      return;
    }
    if (written < 0) {
      // Nobody reads this process's standard error any more.
      forwards_ = false;
      pending_.clear();
      return;
    }
    given_up = false;
    vain_writes_ = 0;
    pending_.remove(0, static_cast<int>(written));
  }
}

// After a write that found no room.
bool StderrRelay::IsBroken(int target) {
  vain_writes_ = TakesBytes(target, 0) ? vain_writes_ + 1 : 0;
  return vain_writes_ >= kMostVainWrites;
}

void StderrRelay::SetReading(bool enabled) {
  if (readable_ != nullptr) {
    readable_->SetEnabled(enabled);
  }
}

void StderrRelay::Close() {
  SetReading(false);
  pipe_.Reset();
  copy_.Reset();
}

void StderrRelay::Finish(std::function<void()> on_forwarded) {
  TakeRest();
  if (HasPending()) {
    KeepBacklog();
  }
  if (!HasPending()) {
    return;
  }
  on_forwarded_ = std::move(on_forwarded);
  StartTimer(resume_, kRetryMs);
}

void StderrRelay::Drop() {
  Close();
  pending_.clear();
}

void StderrRelay::FinishNow(int limit_ms) {
  TakeRest();
  QElapsedTimer since;
  since.start();
  while (HasPending() && !given_up) {
    const int left_ms = limit_ms - static_cast<int>(since.elapsed());
    if (left_ms <= 0 || !TakesBytes(STDERR_FILENO, left_ms)) {
      given_up = true;
      return;
    }
    Forward();
  }
}

void StderrRelay::TakeRest() {
  resume_.stop();
  int left = kChunksAtTheEnd;
  while (left > 0 && ReadChunk()) {
    --left;
  }
  Close();
  Forward();
}

void StderrRelay::KeepBacklog() {
  keeps_backlog_ = ++backlogs <= kMostBacklogs;
  if (keeps_backlog_) {
    return;
  }
  --backlogs;
  pending_.clear();
}

QString StderrRelay::LastLines() const {
  QByteArray text = tail_.right(kTailBytes);
  while (text.endsWith('\n')) {
    text.chop(1);
  }
  int start = text.size();
  for (int line = 0; line < kTailLines && start >= 0; ++line) {
    start = start == 0 ? -1 : text.lastIndexOf('\n', start - 1);
  }
  return EscapedTail(text.mid(start + 1).replace('\n', " | "), kTailBytes);
}

}  // namespace RuntimeManager::host
