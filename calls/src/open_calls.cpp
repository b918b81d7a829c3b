#include "open_calls.h"

namespace tarv::details {

void OpenCalls::Add(const StatePtr& state) {
  by_deadline_.emplace(Key(state->deadline_, latest_ + 1), state);
  state->number_ = ++latest_;
  state->earlier_ = last_;
  (last_ != nullptr ? last_->later_ : first_) = state.get();
  last_ = state.get();
}

void OpenCalls::Remove(CallState& state) noexcept {
  const auto found = by_deadline_.find(Key(state.deadline_, state.number_));
  if (found == by_deadline_.end()) {
    return;
  }
  (state.earlier_ != nullptr ? state.earlier_->later_ : first_) = state.later_;
  (state.later_ != nullptr ? state.later_->earlier_ : last_) = state.earlier_;
  state.earlier_ = state.later_ = nullptr;
  by_deadline_.erase(found);
}

// The neighbour of a call that has been removed meanwhile is looked for from the start, where it is
// when all of them are being removed.
OpenCalls::StatePtr OpenCalls::FindNext(const CallState& state) const noexcept {
  const bool is_open = state.earlier_ != nullptr || first_ == &state;
  if (!is_open) {
    return FindAfter(state.number_);
  }
  return state.later_ != nullptr ? state.later_->weak_from_this().lock() : nullptr;
}

OpenCalls::StatePtr OpenCalls::FindAfter(std::uint64_t number) const noexcept {
  CallState* state = first_;
  while (state != nullptr && state->number_ <= number) {
    state = state->later_;
  }
  return state != nullptr ? state->weak_from_this().lock() : nullptr;
}

}  // namespace tarv::details
