#include "exit_flush.h"

#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <mutex>
#include <thread>
#include <vector>

#include "line_channel.h"

namespace RuntimeManager::host {
namespace {

using Clock = std::chrono::steady_clock;

// Enough for a starter under load to take tens of mebibytes; less than a stop() waits for.
constexpr std::chrono::seconds kMost{2};

// The channels of this process. Any thread.
class Channels {
 public:
  static Channels& Get() {
    // Never destroyed: it is needed until the very end of the process.
    static Channels* const channels = [] {
      std::atexit([] { Get().Flush(); });
      return new Channels;
    }();
    return *channels;
  }

  void Add(const std::shared_ptr<LineChannel>& channel) {
    const std::lock_guard lock(mutex_);
    const auto is_gone = [](const Entry& entry) { return entry.channel.expired(); };
    entries_.erase(std::remove_if(entries_.begin(), entries_.end(), is_gone), entries_.end());
    entries_.push_back({channel, std::this_thread::get_id()});
  }

 private:
  struct Entry {
    std::weak_ptr<LineChannel> channel;
    std::thread::id thread;
  };

  // A forked copy of the process has nothing to say, and a channel of another thread may be in use.
  void Flush() {
    if (owner_ != ::getpid()) {
      return;
    }
    const auto deadline = Clock::now() + kMost;
    const std::lock_guard lock(mutex_);
    for (const Entry& entry : entries_) {
      const auto channel = entry.channel.lock();
      if (channel != nullptr && entry.thread == std::this_thread::get_id()) {
        channel->FlushUntil(deadline);
      }
    }
  }

  const pid_t owner_ = ::getpid();
  std::mutex mutex_;
  std::vector<Entry> entries_;
};

}  // namespace

void FlushAtExit(const std::shared_ptr<LineChannel>& channel) { Channels::Get().Add(channel); }

}  // namespace RuntimeManager::host
