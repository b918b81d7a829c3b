#include <tarv/testing/manual_loop.h>

#include <stdexcept>
#include <string>

namespace tarv::testing {

void ManualLoop::Post(Function function) {
  const std::lock_guard lock(mutex_);
  posted_.push_back(std::move(function));
}

Loop::Time ManualLoop::Now() const {
  const std::lock_guard lock(mutex_);
  return now_;
}

void ManualLoop::WakeAt(Time time, Function function) {
  const std::lock_guard lock(mutex_);
  wakes_.emplace(std::pair(time, ++wakes_set_), std::move(function));
}

std::size_t ManualLoop::CountWaiting() const {
  const std::lock_guard lock(mutex_);
  return wakes_.size();
}

bool ManualLoop::HasWork() const {
  const std::lock_guard lock(mutex_);
  return !posted_.empty() || (!wakes_.empty() && wakes_.begin()->first.first <= now_);
}

void ManualLoop::Pump() {
  for (std::size_t count = 0; Function function = TakeNext(); ++count) {
    if (count == kMostFunctions) {
      throw std::runtime_error("tarv::testing: the loop has run " + std::to_string(count) +
                               " functions at one time and does not come to rest: do two ends "
                               "answer each other for ever?");
    }
    function();
  }
}

void ManualLoop::Advance(Duration duration) {
  if (duration < Duration::zero()) {
    throw std::invalid_argument("tarv::testing: time cannot go back");
  }
  const Time until = Now() + duration;
  Pump();
  while (MoveToNextWake(until)) {
    Pump();
  }
}

bool ManualLoop::PumpUntil(const std::function<bool()>& condition, Duration limit) {
  const Time until = Clock::now() + limit;
  Pump();
  while (!condition()) {
    if (Clock::now() >= until) {
      return false;
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
    Pump();
  }
  return true;
}

// What was posted goes before what waits for its time.
Loop::Function ManualLoop::TakeNext() {
  const std::lock_guard lock(mutex_);
  Function next;
  if (!posted_.empty()) {
    next = std::move(posted_.front());
    posted_.pop_front();
  } else if (!wakes_.empty() && wakes_.begin()->first.first <= now_) {
    next = std::move(wakes_.begin()->second);
    wakes_.erase(wakes_.begin());
  }
  return next;
}

// False when nothing is due until then; it is then that time.
bool ManualLoop::MoveToNextWake(Time until) {
  const std::lock_guard lock(mutex_);
  const bool is_due = !wakes_.empty() && wakes_.begin()->first.first <= until;
  now_ = is_due ? wakes_.begin()->first.first : until;
  return is_due;
}

}  // namespace tarv::testing
