#include "caller_core.h"

#include <algorithm>

#include "answered_names.h"

namespace tarv::details {

namespace {

using OptionalError = std::optional<vorpc::Message::Error>;
using vorpc::Message;

// From the start of a task to the word that it runs, on a busy machine.
constexpr Duration kLongestStart = std::chrono::seconds(5);

}  // namespace

CallerCore::CallerCore(std::shared_ptr<Loop> loop, CallerOptions options)
    : loop_(std::move(loop)),
      options_(std::move(options)),
      task_name_(options_.task_name),
      inbox_(loop_) {}

template <class Argument>
std::function<void(const Argument&)> CallerCore::Listen(
    void (CallerCore::*handler)(const Argument&)) {
  return [weak = weak_from_this(), number = client_number_, handler](const Argument& argument) {
    if (const auto core = weak.lock()) {
      core->Route([core, number, handler, argument] {
        if (core->client_number_ == number) {
          ((*core).*handler)(argument);
        }
      });
    }
  };
}

void CallerCore::Attach(std::shared_ptr<vorpc::IClient> client) {
  if (closed_) {
    return;
  }
  Detach();
  if (!client) {
    link_ = Link::kLost;
    loss_ = LossOfMissingClient();
    return;
  }
  client_ = std::move(client);
  requests_ = dynamic_cast<vorpc::IRequests*>(client_.get());
  link_ = Link::kConnecting;
  attached_ = loop_->Now();
  if (!open_.empty()) {
    first_call_ = loop_->Now();
    SetTimer();
  }
  const Busy busy(*this);
  client_->OnConnected(Listen<OptionalError>(&CallerCore::OnConnected));
  client_->OnDisconnected(Listen<OptionalError>(&CallerCore::OnDisconnected));
  client_->OnNotify("$/progress", Listen<Message::Notification>(&CallerCore::OnProgress));
  ListenToManager();
  client_->Run();
}

// Not at once: in the middle of a manager's end, what a consumer uses may have gone before it.
void CallerCore::ListenToManager() {
  auto* const task = dynamic_cast<ITaskClient*>(client_.get());
  if (task == nullptr) {
    return;
  }
  if (task_name_.empty() && !supervised_) {
    task_name_ = task->GetTaskName();
  }
  task->OnManagerEnded([weak = weak_from_this(), number = client_number_](EndedManager manager) {
    if (const auto core = weak.lock()) {
      core->inbox_.Add([core, number, manager] {
        if (core->client_number_ == number) {
          core->HandleLoss(LossOfManager(manager));
        }
      });
    }
  });
}

void CallerCore::Detach() {
  ++client_number_;
  const Link link = std::exchange(link_, Link::kNone);
  requests_ = nullptr;
  first_call_.reset();
  // The client goes last: its end may run anything.
  const auto client = std::exchange(client_, nullptr);
  if (link == Link::kConnecting && !client->HasConnectionFailed()) {
    KeepWhileStarting(client);
  }
}

// A client that goes while its task is starting leaves that task running until the manager's end.
// Nobody tells when a task has started, but it has once it connects, or after a while.
void CallerCore::KeepWhileStarting(const std::shared_ptr<vorpc::IClient>& client) const {
  const Loop::Time started = attached_ + kLongestStart;
  if (loop_->Now() >= started) {
    return;
  }
  // Qt's loop lives as long as somebody has it. Any other has an owner, and is not kept from its end.
  const auto qt_loop = loop_ == Loop::OfThisThread() ? loop_ : nullptr;
  const auto kept = std::make_shared<std::shared_ptr<vorpc::IClient>>(client);
  const auto let_go = [weak = std::weak_ptr(kept)] {
    if (const auto held = weak.lock()) {
      held->reset();
    }
  };
  loop_->WakeAt(started, [kept] { kept->reset(); });
  client->OnConnected(
      [let_go, qt_loop, weak = std::weak_ptr(loop_)](const OptionalError& /*error*/) {
        if (const auto loop = weak.lock()) {
          loop->Post(let_go);
        }
      });
  if (auto* const task = dynamic_cast<ITaskClient*>(client.get())) {
    task->OnManagerEnded([let_go, qt_loop](EndedManager /*manager*/) { let_go(); });
  }
}

void CallerCore::FailKept(const Loss& loss) {
  const auto self = shared_from_this();
  for (const StatePtr& state : CollectOpen()) {
    if (state->phase_ == CallState::Phase::kKept) {
      End(state, NamesOf(*state).Lost(loss, false));
    }
  }
}

void CallerCore::Close() {
  const auto self = shared_from_this();
  closed_ = true;
  do {
    inbox_.Drain();
    for (const StatePtr& state : CollectOpen()) {
      TellTask(*state);
      End(state, NamesOf(*state).Released());
    }
  } while (!inbox_.Close());
  Detach();
}

void CallerCore::OnConnected(const OptionalError& error) {
  if (error) {
    HandleLoss(LossOf(error, true));
    return;
  }
  link_ = Link::kConnected;
  if (const auto supervisor = supervisor_.lock()) {
    supervisor->OnConnected();
  }
  for (const StatePtr& state : CollectOpen()) {
    if (state->phase_ == CallState::Phase::kKept) {
      Send(state);
    }
  }
}

void CallerCore::OnDisconnected(const OptionalError& error) { HandleLoss(LossOf(error, false)); }

// A supervisor may have another client ready by the time that the calls of this one end.
void CallerCore::HandleLoss(const Loss& loss) {
  const auto self = shared_from_this();
  const auto lost = CollectOpen();
  loss_ = WithMethods(loss, lost);
  const Loss told = loss_;
  Detach();
  link_ = supervised_ ? Link::kNone : Link::kLost;
  if (const auto supervisor = supervisor_.lock()) {
    supervisor->OnLost(told);
  }
  for (const StatePtr& state : lost) {
    // One that was alone under way names its method anyhow.
    const bool is_alone = lost.size() == 1 && state->phase_ == CallState::Phase::kSent;
    End(state, LossFor(*state, is_alone ? loss : told));
  }
}

// One of the methods under way may be what the task died of.
Loss CallerCore::WithMethods(const Loss& loss, const std::vector<StatePtr>& lost) const {
  std::vector<std::string> methods;
  for (const StatePtr& state : lost) {
    if (state->phase_ == CallState::Phase::kSent) {
      methods.push_back(state->GetMethod());
    }
  }
  Loss told = loss;
  if (!methods.empty() && loss.reason != CallReason::kReleased) {
    told.text += "; under way: " + TextOfMethods(methods);
  }
  return told;
}

void CallerCore::OnProgress(const Message::Notification& progress) {
  const auto* const token = progress.params.Find<std::string>("token");
  const cw::EncodableValue* const value = progress.params.Find("value");
  const auto found = token != nullptr ? progress_.find(*token) : progress_.end();
  if (found == progress_.end() || value == nullptr) {
    return;  // of another Caller, or late
  }
  if (const StatePtr state = found->second.lock()) {
    state->HandleProgress(*value);
  }
}

void CallerCore::OnResponse(const StatePtr& state, const Message::Response& response) {
  if (state->phase_ != CallState::Phase::kSent) {
    return;
  }
  if (const Message::Error* const error = response.GetError()) {
    OnError(state, *error);
    return;
  }
  meter_.AddBytes(state->meter_, 0, CountBytes(*response.GetResult()));
  Misfit misfit;
  if (state->KeepResult(*response.GetResult(), misfit)) {
    End(state, std::nullopt);
  } else {
    End(state, NamesOf(*state).BadAnswer(misfit.GetText("result")));
  }
}

void CallerCore::OnError(const StatePtr& state, const Message::Error& error) {
  if (client_ && client_->HasConnectionFailed()) {
    // The connection's end answers what was under way; the calls learn it as that.
    OnDisconnected(error);
  } else if (error.code == Message::kUnknownMethod && state->GetMethod().rfind("$/", 0) != 0) {
    AskForNames(state, error);
  } else {
    End(state, NamesOf(*state).Answered(error));
  }
}

// The error shall tell what the task knows instead. Until it does, the call is open.
void CallerCore::AskForNames(const StatePtr& state, const Message::Error& error) {
  const Busy busy(*this);
  state->error_ = NamesOf(*state).Answered(error);
  SendThroughClient(*state, "$/describe", {}, [state, error](const Message::Response& response) {
    CallerCore& core = *state->core_;
    core.Route([state, error, response] { state->core_->OnNames(state, error, response); });
  });
}

void CallerCore::OnNames(const StatePtr& state, const Message::Error& error,
                         const Message::Response& response) {
  End(state, NamesOf(*state).Unknown(error, MethodNamesIn(response)));
}

void CallerCore::OnWake() {
  const auto self = shared_from_this();
  const Loop::Time now = loop_->Now();
  while (!open_.empty() && open_.begin()->first.first <= now) {
    Expire(StatePtr(open_.begin()->second));
  }
  if (!open_.empty() && IsOverdue()) {
    loss_ = LossOfSilentTask(task_name_, loop_->Now() - *first_call_);
    if (supervised_) {
      HandleLoss(Loss(loss_));
    } else {
      EndAllLost();
    }
  }
  SetTimer();
}

void CallerCore::Expire(const StatePtr& state) {
  const bool sent = state->phase_ == CallState::Phase::kSent;
  TellTask(*state);
  // A call that has its error, but not yet the names that go with it, ends with that.
  End(state, state->error_ ? *state->error_
                           : NamesOf(*state).TimedOut(state->deadline_ - state->started_, sent));
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
void CallerCore::SetTimer() {
  if (open_.empty()) {
    return;
  }
  const Loop::Time earliest =
      std::min(open_.begin()->first.first, IsOverdue() ? Loop::Time::max() : ConnectDeadline());
  if (earliest == Loop::Time::max() || (!wakes_.empty() && *wakes_.begin() <= earliest)) {
    return;
  }
  wakes_.insert(earliest);
  loop_->WakeAt(earliest, [weak = weak_from_this(), earliest] {
    if (const auto core = weak.lock()) {
      core->wakes_.erase(earliest);
      core->OnWake();
    }
  });
}

CallNames CallerCore::NamesOf(const CallState& state) const {
  return {state.GetMethod(), task_name_};
}

// A call that has its error, but not yet the names that go with it, ends with that.
CallError CallerCore::LossFor(const CallState& state, const Loss& loss) const {
  return state.error_ ? *state.error_
                      : NamesOf(state).Lost(loss, state.phase_ == CallState::Phase::kSent);
}

// Of several ends of one call the first counts.
void CallerCore::End(const StatePtr& state, std::optional<CallError> error) {
  if (state->phase_ == CallState::Phase::kEnded) {
    return;
  }
  open_.erase({state->deadline_, state->number_});
  if (state->has_progress_) {
    progress_.erase(state->id_.value);
  }
  const auto reason = error ? std::optional(error->GetReason()) : std::nullopt;
  meter_.End(state->meter_, reason, loop_->Now() - state->started_);
  state->phase_ = CallState::Phase::kEnded;
  state->params_ = nullptr;
  state->error_ = std::move(error);
  if (busy_ == 0) {
    state->Finish();
  } else {
    DeliverLater(state);
  }
}

void CallerCore::EndAllLost() {
  for (const StatePtr& state : CollectOpen()) {
    End(state, LossFor(*state, loss_));
  }
}

// By value: what ends one call may begin and end others.
std::vector<CallerCore::StatePtr> CallerCore::CollectOpen() const {
  std::vector<StatePtr> states;
  states.reserve(open_.size());
  for (const auto& [key, state] : open_) {
    states.push_back(state);
  }
  std::sort(states.begin(), states.end(),
            [](const StatePtr& a, const StatePtr& b) { return a->number_ < b->number_; });
  return states;
}

}  // namespace tarv::details
