#include "send_queue.h"

#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <utility>

#include "process_exit.h"
#include "socket_writes.h"
#include "trace.h"
#include "want_of_memory.h"

namespace RuntimeManager::host {
namespace {

// Lines up to this size may be held, and share a buffer.
constexpr std::size_t kSmall = std::size_t{1} << 10U;
// How much of them goes out together: the peer shall have something to do meanwhile.
constexpr int kBatch = 4 << 10;
constexpr int kTailRoom = kBatch + static_cast<int>(kSmall);
// Nothing that is held begins to wait for another handler after that time.
constexpr std::chrono::microseconds kHoldTime{200};
// How often it is asked whether another thread has stopped writing.
constexpr std::chrono::milliseconds kWriterPatience{1};

}  // namespace

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
