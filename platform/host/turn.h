// How long handlers run in one turn of the event loop.
#ifndef RUNTIME_MANAGER_HOST_TURN_H
#define RUNTIME_MANAGER_HOST_TURN_H

#include <chrono>
#include <optional>

namespace RuntimeManager::host {

// Begins when something may follow what is handled next, and not before: a message that comes alone
// needs no look at the clock.
class Turn {
 public:
  using Clock = std::chrono::steady_clock;

  // About 10 ms: a flood on one connection leaves time for timers and other connections.
  static Turn Short() { return Turn(std::nullopt); }
  static Turn WithoutEnd() { return Turn(Clock::time_point::max()); }

  void Begin() {
    if (!end_) {
      end_ = Clock::now() + kLength;
    }
  }
  bool HasBegun() const { return end_.has_value(); }
  bool IsOver(Clock::time_point now) const { return end_ && now >= *end_; }

 private:
  static constexpr std::chrono::milliseconds kLength{10};

  explicit Turn(std::optional<Clock::time_point> end) : end_(end) {}

  std::optional<Clock::time_point> end_;
};

}  // namespace RuntimeManager::host

#endif  // RUNTIME_MANAGER_HOST_TURN_H
