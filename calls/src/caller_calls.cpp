// The calls that users ask of a core, on their way to the client.
#include <exception>

#include "caller_core.h"

namespace tarv::details {

using vorpc::Message;

void CallerCore::Start(const StatePtr& state) {
  if (loop_->IsCurrent()) {
    const auto self = shared_from_this();
    const Busy busy(*this);
    Admit(state);
  } else {
    inbox_.Add([state] { state->core_->Start(state); });
  }
}

void CallerCore::Cancel(const StatePtr& state) {
  if (loop_->IsCurrent()) {
    const auto self = shared_from_this();
    const Busy busy(*this);
    TellTask(*state);
    End(state, NamesOf(*state).Cancelled());
  } else {
    inbox_.Add([state] { state->core_->Cancel(state); });
  }
}

void CallerCore::DeliverLater(const StatePtr& state) {
  inbox_.Add([state] { state->Finish(); });
}

void CallerCore::Admit(const StatePtr& state) {
  state->number_ = ++calls_;
  state->meter_ = meter_.Begin(state->GetMethod());
  open_.emplace(OpenKey(state->deadline_, state->number_), state);
  if (!first_call_) {
    first_call_ = state->started_;
  }
  if (closed_) {
    End(state, NamesOf(*state).Released());
  } else if (!state->misfit_.empty()) {
    End(state, NamesOf(*state).BadArguments(state->misfit_));
  } else if (state->deadline_ <= loop_->Now()) {
    Expire(state);
  } else {
    SendOrKeep(state);
    SetTimer();
  }
}

void CallerCore::SendOrKeep(const StatePtr& state) {
  if (link_ == Link::kConnected) {
    Send(state);
    return;
  }
  if (link_ == Link::kLost) {
    End(state, LossFor(*state, loss_));
    return;
  }
  if (IsOverdue()) {
    loss_ = LossOfSilentTask(task_name_, loop_->Now() - *first_call_);
    End(state, LossFor(*state, loss_));
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
          if (core.CanRunNow()) {
            core.OnResponse(state, response);
          } else {
            core.Route([state, response] { state->core_->OnResponse(state, response); });
          }
        });
  } catch (const std::exception& error) {
    End(state, NamesOf(*state).NotSent(error.what()));
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

// That nobody waits for the answer any more.
void CallerCore::TellTask(CallState& state) {
  if (state.phase_ != CallState::Phase::kSent || requests_ == nullptr || state.id_.value.empty()) {
    return;
  }
  const Busy busy(*this);
  const auto client = client_;  // what arrives meanwhile may detach it
  if (requests_->ForgetRequest(state.id_)) {
    client->SendNotify("$/cancelRequest", cw::EncodableMap{{"id", state.id_.value}});
  }
}

}  // namespace tarv::details
