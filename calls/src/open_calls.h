// The calls of a Caller that are open.
#ifndef TARV_CALLS_SRC_OPEN_CALLS_H
#define TARV_CALLS_SRC_OPEN_CALLS_H

#include <tarv/calls/call_state.h>
#include <tarv/calls/loop.h>

#include <cstddef>
#include <cstdint>
#include <map>
#include <memory>
#include <utility>

namespace tarv::details {

// In the order in which they were made, and by their deadlines. Add alone takes memory: calls end
// when there is none. One thread.
class OpenCalls {
 public:
  using StatePtr = std::shared_ptr<CallState>;

  // Gives the call its number. Throws std::bad_alloc: nothing has changed then.
  void Add(const StatePtr& state);
  // Nothing, when it is not among them.
  void Remove(CallState& state) noexcept;
  bool IsEmpty() const { return by_deadline_.empty(); }
  std::size_t Count() const { return by_deadline_.size(); }
  // The number of the latest call that was ever added.
  std::uint64_t GetLatest() const { return latest_; }
  // The earliest deadline; Loop::Time::max() when there is none.
  Loop::Time GetDeadline() const {
    return IsEmpty() ? Loop::Time::max() : by_deadline_.begin()->first.first;
  }
  // The call whose deadline that is.
  StatePtr GetFirstDue() const { return by_deadline_.begin()->second; }

  // Calls `act` with each call up to this number, in the order of calls. It may add and remove any.
  template <class Act>
  void ForEach(std::uint64_t last, const Act& act) const {
    for (StatePtr state = FindAfter(0); state && state->number_ <= last; state = FindNext(*state)) {
      act(state);
    }
  }
  template <class Act>
  void ForEach(const Act& act) const {
    ForEach(latest_, act);
  }

 private:
  // The order in which calls end: by deadline, then as they were made.
  using Key = std::pair<Loop::Time, std::uint64_t>;

  StatePtr FindNext(const CallState& state) const noexcept;
  StatePtr FindAfter(std::uint64_t number) const noexcept;

  std::map<Key, StatePtr> by_deadline_;
  CallState* first_ = nullptr;
  CallState* last_ = nullptr;
  std::uint64_t latest_ = 0;
};

}  // namespace tarv::details

#endif  // TARV_CALLS_SRC_OPEN_CALLS_H
