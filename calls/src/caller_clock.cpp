// The deadlines of a core's calls, and of its task's start.
#include <algorithm>
#include <new>

#include "caller_core.h"

namespace tarv::details {

void CallerCore::OnWake() noexcept {
  const auto self = weak_from_this().lock();
  const Loop::Time now = loop_->Now();
  while (open_.GetDeadline() <= now && !open_.IsEmpty()) {
    const StatePtr state = open_.GetFirstDue();
    const CallError error = TimeOutOf(*state);
    TellTask(*state);
    End(state, error);
  }
  if (!open_.IsEmpty() && IsOverdue()) {
    loss_ = LossOfSilentTask(task_name_, loop_->Now() - *first_call_);
    if (supervised_) {
      HandleLoss(Loss(loss_));
    } else {
      open_.ForEach([this](const StatePtr& state) { End(state, LossFor(*state, loss_)); });
    }
  }
  KeepTime();
}

// The calls whose time cannot be kept for want of memory end.
void CallerCore::KeepTime() noexcept {
  try {
    SetTimer();
  } catch (const std::bad_alloc&) {
    open_.ForEach([this](const StatePtr& state) {
      TellTask(*state);
      End(state, prepared_error_);
    });
  }
}

// A call that has its error, but not yet the names that go with it, ends with that.
CallError CallerCore::TimeOutOf(const CallState& state) const noexcept {
  const bool sent = state.phase_ == CallState::Phase::kSent;
  return state.error_ ? *state.error_
                      : NamesOf(state).TimedOut(state.deadline_ - state.started_, sent);
}

bool CallerCore::IsOverdue() const {
  return link_ == Link::kConnecting && loop_->Now() >= ConnectDeadline();
}

Loop::Time CallerCore::ConnectDeadline() const {
  if (link_ != Link::kConnecting || !first_call_) {
    return Loop::Time::max();
  }
  return Loop::Time::max() - *first_call_ <= options_.connect_timeout
             ? Loop::Time::max()
             : *first_call_ + options_.connect_timeout;
}

// Whoever is early finds nothing to do, so a wake that comes before the earliest deadline serves.
// Throws std::bad_alloc: nothing has changed then.
void CallerCore::SetTimer() {
  if (open_.IsEmpty()) {
    return;
  }
  const Loop::Time earliest = std::min(open_.GetDeadline(), ConnectDeadline());
  if (earliest == Loop::Time::max() || (!wakes_.empty() && *wakes_.begin() <= earliest)) {
    return;
  }
  const auto wake = wakes_.insert(earliest).first;
  try {
    loop_->WakeAt(earliest, [weak = weak_from_this(), earliest] {
      if (const auto core = weak.lock()) {
        core->wakes_.erase(earliest);
        core->OnWake();
      }
    });
  } catch (...) {
    wakes_.erase(wake);
    throw;
  }
}

}  // namespace tarv::details
