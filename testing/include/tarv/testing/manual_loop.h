// tarv::testing::ManualLoop: a loop that a test pumps, with a clock that only the test turns.
#ifndef TARV_TESTING_MANUAL_LOOP_H
#define TARV_TESTING_MANUAL_LOOP_H

#include <tarv/calls/call_options.h>
#include <tarv/calls/loop.h>

#include <cstddef>
#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <mutex>
#include <thread>
#include <utility>

namespace tarv::testing {

// The thread that makes it is its thread, and pumps it. What a function throws comes out of the
// Pump or Advance that ran it; the functions behind it stay for the next one.
class ManualLoop final : public Loop {
 public:
  // A program that has run so many functions without an end to them is taken to run for ever.
  static constexpr std::size_t kMostFunctions = 1'000'000;

  bool IsCurrent() const override { return std::this_thread::get_id() == thread_; }
  void Post(Function function) override;
  Time Now() const override;
  void WakeAt(Time time, Function function) override;

  // Runs what is due, until nothing is left to do at this time. Throws std::runtime_error when that
  // never comes.
  void Pump();
  // Lets time pass at once. What is due meanwhile runs in order, each at its own time. A negative
  // duration throws std::invalid_argument.
  void Advance(Duration duration);
  // For what other threads post: pumps until `condition` holds. False when `limit`, of real time,
  // ends first.
  bool PumpUntil(const std::function<bool()>& condition, Duration limit = std::chrono::seconds(10));

  // Functions that wait for their time.
  std::size_t CountWaiting() const;
  // Whether something is to be run now.
  bool HasWork() const;

 private:
  Function TakeNext();
  bool MoveToNextWake(Time until);

  const std::thread::id thread_ = std::this_thread::get_id();
  mutable std::mutex mutex_;  // guards what follows
  Time now_{std::chrono::hours(1)};
  std::uint64_t wakes_set_ = 0;
  std::deque<Function> posted_;
  std::map<std::pair<Time, std::uint64_t>, Function>
      wakes_;  // by time, then in the order of setting
};

}  // namespace tarv::testing

#endif  // TARV_TESTING_MANUAL_LOOP_H
