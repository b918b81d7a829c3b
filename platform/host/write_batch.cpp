#include "write_batch.h"

#include <sys/socket.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <csignal>
#include <cstdlib>
#include <system_error>
#include <thread>
#include <utility>
#include <vector>

#include "support.h"

namespace RuntimeManager::host {
namespace {

// How long a message may wait for its owner.
constexpr std::chrono::milliseconds kPatience{1};
// After that many looks at nothing the thread sleeps until it is called.
constexpr int kIdleLooks = 20;
// How long it waits between looks at what a peer does not read.
constexpr std::chrono::milliseconds kMostPatience{16};
// What a batch keeps room for.
constexpr int kRoom = 8 << 10;

// The signals of the process are for the threads of its application.
class AllSignalsBlocked {
 public:
  AllSignalsBlocked() {
    sigset_t all{};
    ::sigfillset(&all);
    ::pthread_sigmask(SIG_SETMASK, &all, &before_);
  }
  ~AllSignalsBlocked() { ::pthread_sigmask(SIG_SETMASK, &before_, nullptr); }
  AllSignalsBlocked(const AllSignalsBlocked&) = delete;
  AllSignalsBlocked& operator=(const AllSignalsBlocked&) = delete;

 private:
  sigset_t before_{};
};

// Set in a forked copy of the process: it has no thread, and what is held is the original's to
// send.
std::atomic<bool> is_copy{false};

}  // namespace

// The thread that writes what owners leave lying. It looks at all batches each millisecond as long
// as there is something to see, so that putting a message in costs no system call.
class WriteBatch::Watch {
 public:
  // Null when the system has no thread to give.
  static Watch* Get() {
    // Never destroyed: its thread runs until the end of the process.
    static Watch* const watch = Start();
    return watch;
  }

  void Add(const std::shared_ptr<WriteBatch>& batch) {
    const std::lock_guard lock(mutex_);
    batches_.push_back(batch);
  }

  // A batch has something to see to.
  void Call() {
    if (awake_) {
      return;
    }
    const std::lock_guard lock(mutex_);
    awake_ = true;
    called_.notify_one();
  }

 private:
  static Watch* Start() {
    auto watch = std::make_unique<Watch>();
    try {
      const AllSignalsBlocked blocked;
      std::thread thread([raw = watch.get()] { raw->Run(); });
      ::pthread_setname_np(thread.native_handle(), "late writer");
      thread.detach();
    } catch (const std::system_error&) {
      return nullptr;
    }
    ::pthread_atfork(nullptr, nullptr, [] { is_copy = true; });
    // A handler may exit with the answers of those before it held back.
    std::atexit([] {
      if (!is_copy) {
        Get()->Look();
      }
    });
    return watch.release();
  }

  [[noreturn]] void Run() {
    while (true) {
      {
        std::unique_lock lock(mutex_);
        called_.wait(lock, [this] { return awake_.load(); });
      }
      LookWhileBusy();
    }
  }

  void LookWhileBusy() {
    auto pause = kPatience;
    for (int idle = 0; idle < kIdleLooks;) {
      std::this_thread::sleep_for(pause);
      const State state = Look();
      idle = state == State::kEmpty ? idle + 1 : 0;
      pause = state == State::kStuck ? std::min(2 * pause, kMostPatience) : kPatience;
    }
    awake_ = false;
    // What was put in before that, by somebody who saw no need to call.
    if (Look() != State::kEmpty) {
      awake_ = true;
    }
  }

  // What the fullest of the batches came to.
  State Look() {
    State fullest = State::kEmpty;
    const std::lock_guard lock(mutex_);
    const auto is_gone = [&fullest](const std::weak_ptr<WriteBatch>& batch) {
      const auto alive = batch.lock();
      if (alive != nullptr) {
        fullest = std::max(fullest, alive->WriteLate());
      }
      return alive == nullptr;
    };
    batches_.erase(std::remove_if(batches_.begin(), batches_.end(), is_gone), batches_.end());
    return fullest;
  }

  std::mutex mutex_;  // taken before that of a batch
  std::condition_variable called_;
  std::atomic<bool> awake_{false};
  std::vector<std::weak_ptr<WriteBatch>> batches_;
};

std::shared_ptr<WriteBatch> WriteBatch::Create(int socket) {
  Watch* const watch = is_copy ? nullptr : Watch::Get();
  if (watch == nullptr) {
    return nullptr;
  }
  std::shared_ptr<WriteBatch> batch(new WriteBatch(socket));
  watch->Add(batch);
  return batch;
}

bool WriteBatch::IsUsable() { return !is_copy; }

void WriteBatch::Put(std::initializer_list<std::string_view> parts) {
  {
    const std::lock_guard lock(mutex_);
    std::size_t size = 0;
    for (const std::string_view part : parts) {
      size += part.size();
    }
    const int before = bytes_.size();
    bytes_.reserve(std::max(kRoom, before + static_cast<int>(size)));
    bytes_.resize(before + static_cast<int>(size));
    char* out = bytes_.data() + before;
    for (const std::string_view part : parts) {
      out = std::copy(part.begin(), part.end(), out);
    }
  }
  Watch::Get()->Call();
}

bool WriteBatch::Write() {
  if (is_copy) {
    return true;
  }
  const std::lock_guard lock(mutex_);
  WriteLocked();
  return bytes_.isEmpty();
}

WriteBatch::State WriteBatch::WriteLate() {
  const std::lock_guard lock(mutex_);
  if (bytes_.isEmpty() || is_broken_) {
    return State::kEmpty;
  }
  return WriteLocked() ? State::kMoved : State::kStuck;
}

// Whether anything went out. An error is for the owner, whose next try meets it again.
bool WriteBatch::WriteLocked() {
  if (bytes_.isEmpty() || socket_ < 0) {
    return false;
  }
  const ssize_t size = RetryOnEintr([this] {
    return ::send(socket_, bytes_.constData(), static_cast<std::size_t>(bytes_.size()),
                  MSG_NOSIGNAL | MSG_DONTWAIT);
  });
  is_broken_ = size < 0 && errno != EAGAIN;
  if (size > 0) {
    bytes_.remove(0, static_cast<int>(size));
  }
  return size > 0;
}

QByteArray WriteBatch::TakeRest() {
  if (is_copy) {
    return {};
  }
  const std::lock_guard lock(mutex_);
  return std::exchange(bytes_, QByteArray());
}

void WriteBatch::Close() {
  if (is_copy) {
    return;
  }
  const std::lock_guard lock(mutex_);
  socket_ = -1;
  bytes_.clear();
}

}  // namespace RuntimeManager::host
