#include "inbox.h"

#include <algorithm>
#include <utility>

namespace tarv::details {

std::uint64_t Inbox::State::Add(Loop::Function& function) {
  const std::lock_guard lock(mutex_);
  if (closed_) {
    return 0;
  }
  entries_.push_back({number_ + 1, {}});
  entries_.back().function.swap(function);
  return ++number_;
}

bool Inbox::State::TakeBack(std::uint64_t number) {
  Loop::Function function;  // destroyed after unlocking
  const std::lock_guard lock(mutex_);
  const auto found = std::find_if(entries_.begin(), entries_.end(),
                                  [number](const Entry& entry) { return entry.number == number; });
  if (found == entries_.end()) {
    return false;
  }
  function.swap(found->function);
  entries_.erase(found);
  return true;
}

bool Inbox::State::IsEmpty() const {
  const std::lock_guard lock(mutex_);
  return entries_.empty();
}

bool Inbox::State::RunFirst() {
  Loop::Function function;
  if (!TakeFirst(function)) {
    return false;
  }
  function();
  return true;
}

bool Inbox::State::TakeFirst(Loop::Function& function) {
  const std::lock_guard lock(mutex_);
  if (entries_.empty()) {
    return false;
  }
  function = std::move(entries_.front().function);
  entries_.pop_front();
  return true;
}

bool Inbox::State::Close() {
  const std::lock_guard lock(mutex_);
  closed_ = entries_.empty();
  return closed_;
}

// One turn of the loop for each: an event loop that runs inside one function meets the next.
void Inbox::Add(Loop::Function function) {
  const std::uint64_t number = state_->Add(function);
  if (number == 0) {
    loop_->Post(std::move(function));
    return;
  }
  try {
    loop_->Post([weak = std::weak_ptr<State>(state_)] {
      if (const auto state = weak.lock()) {
        state->RunFirst();
      }
    });
  } catch (...) {
    // A drain may have been faster.
    if (state_->TakeBack(number)) {
      throw;
    }
  }
}

}  // namespace tarv::details
