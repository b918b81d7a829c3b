#include "inbox.h"

#include <utility>

namespace tarv::details {

bool Inbox::State::Add(Loop::Function& function, bool& first) {
  const std::lock_guard lock(mutex_);
  if (closed_) {
    return false;
  }
  first = functions_.empty();
  functions_.push_back(std::move(function));
  return true;
}

bool Inbox::State::IsEmpty() const {
  const std::lock_guard lock(mutex_);
  return functions_.empty();
}

// One at a time, so that a function that drains, too, meets the rest.
void Inbox::State::Drain() {
  Loop::Function function;
  while (TakeFirst(function)) {
    function();
    function = nullptr;
  }
}

bool Inbox::State::TakeFirst(Loop::Function& function) {
  const std::lock_guard lock(mutex_);
  if (functions_.empty()) {
    return false;
  }
  function = std::move(functions_.front());
  functions_.pop_front();
  return true;
}

bool Inbox::State::Close() {
  const std::lock_guard lock(mutex_);
  closed_ = functions_.empty();
  return closed_;
}

void Inbox::Add(Loop::Function function) {
  bool first = false;
  if (!state_->Add(function, first)) {
    loop_->Post(std::move(function));
  } else if (first) {
    loop_->Post([weak = std::weak_ptr<State>(state_)] {
      if (const auto state = weak.lock()) {
        state->Drain();
      }
    });
  }
}

}  // namespace tarv::details
