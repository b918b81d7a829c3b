// The calls that users ask of a core, on their way to the client.
#include <exception>
#include <new>

#include "caller_core.h"
#include "guarded.h"

namespace tarv::details {

using vorpc::Message;

void CallerCore::Start(const StatePtr& state) {
  if (loop_->IsCurrent()) {
    const auto self = weak_from_this().lock();
    const Busy busy(*this);
    Admit(state);
  } else {
    inbox_.Add([state] { state->core_->StartHere(state); });
  }
}

// What memory runs out for here has no caller left who would hear an exception.
void CallerCore::StartHere(const StatePtr& state) noexcept {
  try {
    Start(state);
  } catch (const std::bad_alloc&) {
    state->Finish();
  }
}

void CallerCore::Cancel(const StatePtr& state) {
  if (loop_->IsCurrent()) {
    const auto self = weak_from_this().lock();
    const Busy busy(*this);
    EndInside(state, NamesOf(*state).Cancelled());
  } else {
    inbox_.Add([state] { state->core_->CancelHere(state); });
  }
}

void CallerCore::CancelHere(const StatePtr& state) noexcept {
  TellTask(*state);
  End(state, NamesOf(*state).Cancelled());
}

void CallerCore::DeliverLater(const StatePtr& state) {
  inbox_.Add([state] { state->Finish(); });
}

// Throws std::bad_alloc, which is the call's end then.
void CallerCore::Admit(const StatePtr& state) {
  try {
    Enter(state);
    if (auto error = FindRefusal(*state)) {
      EndInside(state, *std::move(error));
    } else {
      SetTimer();
      SendOrKeep(state);
    }
  } catch (const std::bad_alloc&) {
    TellTask(*state);
    Conclude(state, prepared_error_);
    throw;
  }
}

void CallerCore::Enter(const StatePtr& state) {
  MethodMeter* const meter = meter_.Find(state->GetMethod());
  open_.Add(state);
  state->meter_ = meter;
  meter_.Begin(meter);
  if (!first_call_) {
    first_call_ = state->started_;
  }
}

// Why a new call ends at once.
std::optional<CallError> CallerCore::FindRefusal(const CallState& state) {
  if (closed_) {
    return NamesOf(state).Released();
  }
  if (!state.misfit_.empty()) {
    return NamesOf(state).BadArguments(state.misfit_);
  }
  if (state.deadline_ <= loop_->Now()) {
    return TimeOutOf(state);
  }
  if (IsOverdue()) {
    loss_ = LossOfSilentTask(task_name_, loop_->Now() - *first_call_);
  }
  return link_ == Link::kLost || IsOverdue() ? std::optional(LossFor(state, loss_)) : std::nullopt;
}

void CallerCore::SendOrKeep(const StatePtr& state) {
  if (link_ == Link::kConnected) {
    Send(state);
    return;
  }
  state->phase_ = CallState::Phase::kKept;
  const auto supervisor = link_ == Link::kNone ? supervisor_.lock() : nullptr;
  if (supervisor) {
    supervisor->OnClientWanted();
  }
}

void CallerCore::Send(const StatePtr& state) {
  const Busy busy(*this);
  const cw::EncodableValue params = std::exchange(state->params_, nullptr);
  meter_.AddBytes(state->meter_, CountBytes(params), 0);
  state->phase_ = CallState::Phase::kSent;
  try {
    SendThroughClient(
        *state, state->GetMethod(), params, [state](const Message::Response& response) {
          CallerCore& core = *state->core_;
          core.Route(
              [&] { core.OnResponse(state, response); },
              [&] { return [state, response] { state->core_->OnResponse(state, response); }; });
        });
  } catch (const std::bad_alloc&) {
    throw;
  } catch (const std::exception& error) {
    EndInside(state, NamesOf(*state).NotSent(error.what()));
  }
}

void CallerCore::SendKept(const StatePtr& state) noexcept {
  try {
    Send(state);
  } catch (const std::bad_alloc&) {
    TellTask(*state);
    End(state, prepared_error_);
  }
}

void CallerCore::SendThroughClient(CallState& state, std::string_view method,
                                   const cw::EncodableValue& params,
                                   std::function<void(const Message::Response&)>&& callback) {
  if (requests_ == nullptr) {
    client_->SendRequest(method, params, std::move(callback));
    return;
  }
  if (state.has_progress_) {
    progress_.erase(state.id_.value);
  }
  const auto client = client_;  // what arrives meanwhile may detach it
  state.id_ = requests_->StartRequest(method, params, std::move(callback));
  if (state.has_progress_) {
    progress_.emplace(state.id_.value, state.shared_from_this());
  }
}

// That nobody waits for the answer any more. If memory runs out for that, it works on in vain.
void CallerCore::TellTask(CallState& state) noexcept {
  if (state.phase_ != CallState::Phase::kSent || requests_ == nullptr || state.id_.value.empty()) {
    return;
  }
  const Busy busy(*this);
  const auto client = client_;  // what arrives meanwhile may detach it
  RunGuarded("the notice to the task of the end", state.GetMethod(), [&] {
    if (requests_->ForgetRequest(state.id_)) {
      client->SendNotify("$/cancelRequest", cw::EncodableMap{{"id", state.id_.value}});
    }
  });
}

}  // namespace tarv::details
