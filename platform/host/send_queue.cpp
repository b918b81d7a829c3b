#include "send_queue.h"

#include <sys/socket.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <new>
#include <utility>

#include "process_exit.h"
#include "socket_writes.h"
#include "trace.h"
#include "want_of_memory.h"

namespace RuntimeManager::host {
namespace {

// What one turn writes of the queue at most, so that a thread that puts a line in does not write
// those of all others without an end.
constexpr std::size_t kBytesPerTurn = std::size_t{1} << 20U;
// Buffers that go out in one system call.
constexpr std::size_t kPartsPerWrite = 64;
// Lines up to this size may be held, and share a buffer.
constexpr std::size_t kSmall = std::size_t{1} << 10U;
// How much of them goes out together: the peer shall have something to do meanwhile.
constexpr int kBatch = 4 << 10;
constexpr int kTailRoom = kBatch + static_cast<int>(kSmall);
// Nothing that is held begins to wait for another handler after that time.
constexpr std::chrono::microseconds kHoldTime{200};
// How often it is asked whether another thread has stopped writing.
constexpr std::chrono::milliseconds kWriterPatience{1};
// A socket that says it has room, and takes nothing for so long, is taken for broken.
constexpr std::chrono::seconds kRefusalLimit{5};

}  // namespace

// The calling thread is the writer for this scope. Made, and gone, under the lock.
class SendQueue::Turn {
 public:
  explicit Turn(SendQueue* queue) : queue_(queue) { queue_->is_writing_ = true; }
  // What was stopped or closed in the meantime left the writer's things to the writer.
  ~Turn() {
    queue_->is_writing_ = false;
    if (queue_->is_stopped_) {
      queue_->Drop();
    }
  }
  Turn(const Turn&) = delete;
  Turn& operator=(const Turn&) = delete;

 private:
  SendQueue* queue_;
};

SendQueue::SendQueue(QString task, std::size_t max_waiting, Callbacks callbacks)
    : task_(std::move(task)), max_waiting_(max_waiting), callbacks_(std::move(callbacks)) {
  // Whoever has a queue is the original.
  static_cast<void>(IsForkedCopy());
}

SendQueue::Outcome SendQueue::Put(OutLine line) {
  Lock lock(mutex_);
  // What is held counts only when the socket does not take it.
  if (!Fits(line)) {
    WriteAndTell(lock);
  }
  if (is_stopped_) {
    return Outcome::kClosed;
  }
  if (!Fits(line)) {
    return Outcome::kTooMuch;
  }
  if (!MayHold(line)) {
    PutNow(lock, line);
    return Outcome::kTaken;
  }
  Append(line);
  if (tail_.size() >= kBatch) {
    holds_ = false;
    WriteAndTell(lock);
  }
  return Outcome::kTaken;
}

// Answers to the messages of one read go out together: a system call costs more than all else that
// is done for a small message.
bool SendQueue::MayHold(const OutLine& line) {
  if (thread_ != std::this_thread::get_id() || !is_corked_ || line.Size() > kSmall) {
    return false;
  }
  if (!std::exchange(holds_, true)) {
    held_since_ = Clock::now();
  }
  return true;
}

// What waits goes first. A line that nothing waits before goes to the socket from where it lies.
void SendQueue::PutNow(Lock& lock, OutLine& line) {
  if (line.Size() > kSmall) {
    WriteAndTell(lock);
  }
  if (IsEmpty() && !IsRecorded() && MayWrite()) {
    Tell(lock, WriteFrom(lock, line));
  } else if (!is_stopped_) {
    Append(line);
  }
  WriteAndTell(lock);
}

void SendQueue::Append(const OutLine& line) {
  if (line.Size() <= kSmall) {
    tail_.reserve(kTailRoom);
    line.AppendTo(&tail_);
  } else {
    CloseTail();
    queue_.push_back(line.Keep());
  }
  waiting_ += line.Size();
}

void SendQueue::CloseTail() {
  if (!tail_.isEmpty()) {
    queue_.push_back(std::exchange(tail_, QByteArray()));
  }
}

bool SendQueue::MayWrite() const {
  return socket_.IsValid() && !is_writing_ && !waits_for_room_ && !is_stopped_ && error_ == 0 &&
         !IsForkedCopy();
}

// What the socket does not take becomes the front of the queue.
SendQueue::News SendQueue::WriteFrom(Lock& lock, OutLine& line) {
  const Turn turn(this);
  const int socket = socket_.Get();
  const std::size_t size = line.Size();
  waiting_ += size;
  lock.unlock();
  SendPatiently(socket, &line);
  lock.lock();
  waiting_ -= size - line.Size();
  return KeepRest(line, line.Size() < size);
}

SendQueue::News SendQueue::KeepRest(const OutLine& line, bool is_torn) {
  if (line.Size() == 0) {
    return News::kNone;
  }
  try {
    queue_.push_front(line.Keep());
  } catch (const std::bad_alloc&) {
    waiting_ -= line.Size();
    if (!is_torn) {
      throw;
    }
    error_ = ENOMEM;
    return News::kError;
  }
  return News::kNone;
}

void SendQueue::WriteAndTell(Lock& lock) { Tell(lock, Write(lock)); }

void SendQueue::Tell(Lock& lock, News news) {
  if (news == News::kNone) {
    return;
  }
  const int error_number = error_;
  lock.unlock();
  if (news == News::kFull) {
    callbacks_.on_full();
  } else {
    callbacks_.on_error(error_number);
  }
  lock.lock();
}

SendQueue::News SendQueue::Write(Lock& lock, Clock::time_point patience) {
  if (IsEmpty() || !MayWrite()) {
    return News::kNone;
  }
  const Turn turn(this);
  std::size_t budget = kBytesPerTurn;
  while (!IsEmpty() && budget > 0) {
    long long time = 0;
    const ssize_t size = WriteSome(lock, patience, &time);
    if (size < 0) {
      return is_stopped_ ? News::kNone : Judge(errno);
    }
    refused_since_.reset();
    DropWritten(static_cast<std::size_t>(size), time);
    if (is_stopped_) {
      return News::kNone;
    }
    budget -= std::min(budget, static_cast<std::size_t>(size));
  }
  waits_for_room_ = !IsEmpty();
  return waits_for_room_ ? News::kFull : News::kNone;
}

// The front of the queue, as far as it is not sent; how many parts that are.
std::size_t SendQueue::Gather(iovec* parts, std::size_t most) const {
  const std::size_t count = std::min(queue_.size(), most);
  std::size_t skip = front_sent_;
  for (std::size_t i = 0; i < count; ++i) {
    const QByteArray& buffer = queue_[i];
    parts[i] = {const_cast<char*>(buffer.constData()) + skip,
                static_cast<std::size_t>(buffer.size()) - skip};
    skip = 0;
  }
  return count;
}

// Sends without the lock: only the writer takes from the front of the queue. `time` is, for the
// record, that before the system call.
ssize_t SendQueue::WriteSome(Lock& lock, Clock::time_point patience, long long* time) {
  CloseTail();
  std::array<iovec, kPartsPerWrite> parts{};
  const std::size_t count = Gather(parts.data(), parts.size());
  const int socket = socket_.Get();
  const auto send = [time, socket, &parts, count] {
    *time = IsRecorded() ? RecordTime() : 0;
    return SendParts(socket, parts.data(), count);
  };
  lock.unlock();
  ssize_t size = send();
  if (size < 0 && errno == EAGAIN && WaitForRoom(socket, patience)) {
    size = send();
  }
  const int error_number = errno;
  lock.lock();
  errno = error_number;
  return size;
}

bool SendQueue::IsPassing(int error_number) {
  if (error_number != EAGAIN && error_number != ENOBUFS && error_number != ENOMEM) {
    return false;
  }
  const auto now = Clock::now();
  if (has_room_ && !refused_since_) {
    refused_since_ = now;
  }
  return !has_room_ || now - *refused_since_ < kRefusalLimit;
}

SendQueue::News SendQueue::Judge(int error_number) {
  if (IsPassing(error_number)) {
    waits_for_room_ = true;
    return News::kFull;
  }
  error_ = error_number;
  return News::kError;
}

void SendQueue::DropWritten(std::size_t size, long long time) {
  waiting_ -= size;
  while (size > 0) {
    const QByteArray& front = queue_.front();
    const auto whole = static_cast<std::size_t>(front.size());
    const std::size_t here = std::min(size, whole - front_sent_);
    TraceLinesSent(task_, {front.constData(), whole}, front_sent_, front_sent_ + here, time);
    front_sent_ += here;
    size -= here;
    if (front_sent_ == whole) {
      queue_.pop_front();
      front_sent_ = 0;
    }
  }
}

void SendQueue::Attach(UniqueFd socket) {
  Lock lock(mutex_);
  if (is_closed_) {
    return;
  }
  socket_ = std::move(socket);
  WriteAndTell(lock);
}

bool SendQueue::Resume() {
  Lock lock(mutex_);
  waits_for_room_ = false;
  has_room_ = true;
  const bool written = Attempt([this, &lock] { WriteAndTell(lock); });
  has_room_ = false;
  if (!written) {
    TellOfWant(lock);
  }
  return waits_for_room_;
}

void SendQueue::Uncork() {
  is_corked_ = false;
  if (!std::exchange(holds_, false) || IsForkedCopy()) {
    return;
  }
  SendHeld();
}

// From the event loop: nobody else would hear that memory ran out.
void SendQueue::SendHeld() {
  Lock lock(mutex_);
  if (!Attempt([this, &lock] { WriteAndTell(lock); })) {
    TellOfWant(lock);
  }
}

void SendQueue::TellOfWant(Lock& lock) {
  error_ = ENOMEM;
  Tell(lock, News::kError);
}

void SendQueue::SendOld(Clock::time_point now) {
  if (!holds_ || now - held_since_ < kHoldTime || IsForkedCopy()) {
    return;
  }
  holds_ = false;
  SendHeld();
}

void SendQueue::FlushUntil(Clock::time_point deadline) {
  Lock lock(mutex_);
  bool in_time = true;
  while (!IsEmpty() && socket_.IsValid() && error_ == 0 && !is_stopped_ && in_time) {
    in_time = Clock::now() < deadline;
    if (is_writing_) {
      lock.unlock();
      std::this_thread::sleep_for(kWriterPatience);
      lock.lock();
      continue;
    }
    waits_for_room_ = false;
    Write(lock, deadline);
  }
}

void SendQueue::Stop() {
  Lock lock(mutex_);
  Attempt([this, &lock] { Write(lock); });
  is_stopped_ = true;
  if (!is_writing_) {
    Drop();
  }
}

void SendQueue::ShutDown() {
  const Lock lock(mutex_);
  ::shutdown(socket_.Get(), SHUT_RDWR);
}

void SendQueue::Close() {
  if (IsForkedCopy()) {
    return;
  }
  Lock lock(mutex_);
  Attempt([this, &lock] { Write(lock); });
  is_stopped_ = is_closed_ = true;
  if (!is_writing_) {
    Drop();
    return;
  }
  // The writer closes it.
  ::shutdown(socket_.Get(), SHUT_RDWR);
}

void SendQueue::Drop() {
  queue_.clear();
  tail_.clear();
  waiting_ = front_sent_ = 0;
  if (is_closed_) {
    socket_.Reset();
  }
}

}  // namespace RuntimeManager::host
