#include "write_batch.h"

#include <sys/socket.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <csignal>
#include <system_error>
#include <thread>
#include <vector>

#include "support.h"

namespace RuntimeManager::host {
namespace {

// How long a message may wait for its owner.
constexpr std::chrono::milliseconds kPatience{1};
// After that many looks at nothing the thread sleeps until it is called.
constexpr int kIdleLooks = 20;
// What a batch keeps room for.
constexpr int kRoom = 16 << 10;

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
    if (awake_) return;
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
    for (int idle = 0; idle < kIdleLooks; idle = Look() ? 0 : idle + 1) {
      std::this_thread::sleep_for(kPatience);
    }
    awake_ = false;
    // What was put in before that, by somebody who saw no need to call.
    if (Look()) awake_ = true;
  }

  // Whether anything was there to write.
  bool Look() {
    bool found = false;
    for (const auto& batch : Living()) found |= batch->WriteLate();
    return found;
  }

  std::vector<std::shared_ptr<WriteBatch>> Living() {
    std::vector<std::shared_ptr<WriteBatch>> living;
    const std::lock_guard lock(mutex_);
    const auto is_gone = [&living](const std::weak_ptr<WriteBatch>& batch) {
      auto alive = batch.lock();
      if (alive == nullptr) return true;
      living.push_back(std::move(alive));
      return false;
    };
    batches_.erase(std::remove_if(batches_.begin(), batches_.end(), is_gone), batches_.end());
    return living;
  }

  std::mutex mutex_;
  std::condition_variable called_;
  std::atomic<bool> awake_{false};
  std::vector<std::weak_ptr<WriteBatch>> batches_;
};

std::shared_ptr<WriteBatch> WriteBatch::Create(int socket) {
  Watch* const watch = Watch::Get();
  if (watch == nullptr) return nullptr;
  std::shared_ptr<WriteBatch> batch(new WriteBatch(socket));
  batch->bytes_.reserve(kRoom);
  watch->Add(batch);
  return batch;
}

void WriteBatch::Put(std::initializer_list<std::string_view> parts) {
  {
    const std::lock_guard lock(mutex_);
    std::size_t size = 0;
    for (const std::string_view part : parts) size += part.size();
    const int before = bytes_.size();
    bytes_.resize(before + static_cast<int>(size));
    char* out = bytes_.data() + before;
    for (const std::string_view part : parts) out = std::copy(part.begin(), part.end(), out);
  }
  Watch::Get()->Call();
}

bool WriteBatch::Write() {
  const std::lock_guard lock(mutex_);
  WriteLocked();
  return bytes_.isEmpty();
}

bool WriteBatch::WriteLate() {
  const std::lock_guard lock(mutex_);
  const bool is_late = !bytes_.isEmpty();
  WriteLocked();
  return is_late;
}

// An error is for the owner, whose next try meets it again.
void WriteBatch::WriteLocked() {
  if (bytes_.isEmpty() || socket_ < 0) return;
  const ssize_t size = RetryOnEintr([this] {
    return ::send(socket_, bytes_.constData(), static_cast<std::size_t>(bytes_.size()),
                  MSG_NOSIGNAL | MSG_DONTWAIT);
  });
  if (size > 0) bytes_.remove(0, static_cast<int>(size));
}

QByteArray WriteBatch::TakeRest() {
  const std::lock_guard lock(mutex_);
  QByteArray rest(bytes_.constData(), bytes_.size());
  bytes_.resize(0);
  return rest;
}

void WriteBatch::Close() {
  const std::lock_guard lock(mutex_);
  socket_ = -1;
  bytes_.resize(0);
}

}  // namespace RuntimeManager::host
