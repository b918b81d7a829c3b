#include "inbox.h"

#include <utility>

namespace tarv::details {

bool Inbox::State::Add(Loop::Function& function) {
  const std::lock_guard lock(mutex_);
  if (closed_) {
    return false;
  }
  functions_.push_back(std::move(function));
  return true;
}

bool Inbox::State::IsEmpty() const {
  const std::lock_guard lock(mutex_);
  return functions_.empty();
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

// One turn of the loop for each: an event loop that runs inside one function meets the next.
void Inbox::Add(Loop::Function function) {
  if (!state_->Add(function)) {
    loop_->Post(std::move(function));
    return;
  }
  loop_->Post([weak = std::weak_ptr<State>(state_)] {
    if (const auto state = weak.lock()) {
      state->RunFirst();
    }
  });
}

}  // namespace tarv::details
