// How a queue's front goes to the socket: one thread writes, without the lock, others append.

#include <algorithm>
#include <array>
#include <cerrno>
#include <new>

#include "send_queue.h"
#include "socket_writes.h"
#include "trace.h"

namespace RuntimeManager::host {
namespace {

// What one turn writes of the queue at most, so that a thread that puts a line in does not write
// those of all others without an end.
constexpr std::size_t kBytesPerTurn = std::size_t{1} << 20U;
// Buffers that go out in one system call.
constexpr std::size_t kPartsPerWrite = 64;
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

}  // namespace RuntimeManager::host
