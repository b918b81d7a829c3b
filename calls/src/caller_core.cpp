#include "caller_core.h"

#include <new>
#include <vector>

#include "guarded.h"

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
      prepared_error_(PreparedError(task_name_)),
      inbox_(loop_) {}

template <class Argument>
std::function<void(const Argument&)> CallerCore::Listen(
    void (CallerCore::*handler)(const Argument&)) {
  return [weak = weak_from_this(), number = client_number_, handler](const Argument& argument) {
    const auto core = weak.lock();
    if (!core) {
      return;
    }
    const auto hear = [core, number, handler](const Argument& heard) {
      if (core->client_number_ == number) {
        ((*core).*handler)(heard);
      }
    };
    core->Route([&] { hear(argument); }, [&] { return [hear, argument] { hear(argument); }; });
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
  try {
    Connect();
  } catch (...) {
    Detach();
    throw;
  }
}

void CallerCore::Connect() {
  if (!open_.IsEmpty()) {
    first_call_ = loop_->Now();
    SetTimer();
  }
  const Busy busy(*this);
  const auto client = client_;  // what arrives meanwhile may detach it
  client->OnConnected(Listen<OptionalError>(&CallerCore::OnConnected));
  client->OnDisconnected(Listen<OptionalError>(&CallerCore::OnDisconnected));
  client->OnNotify("$/progress", Listen<Message::Notification>(&CallerCore::OnProgress));
  ListenToManager();
  client->Run();
}

// Not at once: in the middle of a manager's end, what a consumer uses may have gone before it.
void CallerCore::ListenToManager() {
  auto* const task = dynamic_cast<ITaskClient*>(client_.get());
  if (task == nullptr) {
    return;
  }
  if (task_name_.empty() && !supervised_) {
    prepared_error_ = PreparedError(task->GetTaskName());
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

void CallerCore::Detach() noexcept {
  ++client_number_;
  const Link link = std::exchange(link_, Link::kNone);
  requests_ = nullptr;
  first_call_.reset();
  // The client goes last: its end may run anything.
  const auto client = std::exchange(client_, nullptr);
  if (link == Link::kConnecting && !client->HasConnectionFailed()) {
    RunGuarded("the wait for the start", task_name_, [&] { KeepWhileStarting(client); });
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

void CallerCore::FailKept(const Loss& loss) noexcept {
  const auto self = weak_from_this().lock();
  open_.ForEach([&](const StatePtr& state) {
    if (state->phase_ == CallState::Phase::kKept) {
      End(state, NamesOf(*state).Lost(loss, false));
    }
  });
}

void CallerCore::Close() noexcept {
  const auto self = weak_from_this().lock();
  closed_ = true;
  do {
    inbox_.Drain();
    open_.ForEach([this](const StatePtr& state) {
      TellTask(*state);
      End(state, NamesOf(*state).Released());
    });
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
  open_.ForEach([this](const StatePtr& state) {
    if (state->phase_ == CallState::Phase::kKept && link_ == Link::kConnected) {
      SendKept(state);
    }
  });
}

void CallerCore::OnDisconnected(const OptionalError& error) { HandleLoss(LossOf(error, false)); }

// A supervisor may have another client ready by the time that the calls of this one end.
void CallerCore::HandleLoss(const Loss& loss) noexcept {
  const auto self = weak_from_this().lock();
  const std::uint64_t last = open_.GetLatest();
  const Loss alone = loss;
  const Loss told = WithMethods(loss);
  const bool is_one = open_.Count() == 1;
  loss_ = told;
  Detach();
  link_ = supervised_ ? Link::kNone : Link::kLost;
  if (const auto supervisor = supervisor_.lock()) {
    supervisor->OnLost(told);
  }
  open_.ForEach(last, [&](const StatePtr& state) {
    // One that was alone under way names its method anyhow.
    const bool is_alone = is_one && state->phase_ == CallState::Phase::kSent;
    End(state, LossFor(*state, is_alone ? alone : told));
  });
}

// One of the methods under way may be what the task died of.
Loss CallerCore::WithMethods(const Loss& loss) const noexcept {
  if (loss.reason == CallReason::kReleased || loss.text == nullptr) {
    return loss;
  }
  const SharedText text = MakeText([&] {
    const std::string methods = TextOfSent();
    return methods.empty() ? *loss.text : *loss.text + "; under way: " + methods;
  });
  Loss told = loss;
  told.text = text != nullptr ? text : loss.text;
  return told;
}

std::string CallerCore::TextOfSent() const {
  std::vector<std::string> methods;
  open_.ForEach([&methods](const StatePtr& state) {
    if (state->phase_ == CallState::Phase::kSent) {
      methods.push_back(state->GetMethod());
    }
  });
  return TextOfMethods(methods);
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
  End(state, Read(*state, *response.GetResult()));
}

// Keeps the result; the error when that cannot be.
std::optional<CallError> CallerCore::Read(CallState& state, const cw::EncodableValue& result) {
  meter_.AddBytes(state.meter_, 0, CountBytes(result));
  try {
    Misfit misfit;
    return state.KeepResult(result, misfit) ? std::nullopt
                                            : std::optional(NamesOf(state).BadAnswer(misfit));
  } catch (const std::bad_alloc&) {
    return prepared_error_;
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

// The error shall tell what the task knows instead. Until it does, the call is open. What memory
// runs out for is not told.
void CallerCore::AskForNames(const StatePtr& state, const Message::Error& error) {
  state->error_ = NamesOf(*state).Answered(error);
  try {
    const Busy busy(*this);
    SendThroughClient(*state, "$/describe", {}, [state, error](const Message::Response& response) {
      CallerCore& core = *state->core_;
      core.Route([&] { core.OnNames(state, error, response); },
                 [&] {
                   return
                       [state, error, response] { state->core_->OnNames(state, error, response); };
                 });
    });
  } catch (const std::bad_alloc&) {
    End(state, state->error_);
  }
}

void CallerCore::OnNames(const StatePtr& state, const Message::Error& error,
                         const Message::Response& response) {
  End(state, NamesOf(*state).Unknown(error, response));
}

// A call that has its error, but not yet the names that go with it, ends with that.
CallError CallerCore::LossFor(const CallState& state, const Loss& loss) const noexcept {
  return state.error_ ? *state.error_
                      : NamesOf(state).Lost(loss, state.phase_ == CallState::Phase::kSent);
}

// Of several ends of one call the first counts.
void CallerCore::End(const StatePtr& state, std::optional<CallError> error) noexcept {
  if (state->phase_ == CallState::Phase::kEnded) {
    return;
  }
  Conclude(state, std::move(error));
  if (busy_ == 0 || !TryDeliverLater(state)) {
    state->Finish();
  }
}

bool CallerCore::TryDeliverLater(const StatePtr& state) noexcept {
  try {
    DeliverLater(state);
  } catch (const std::bad_alloc&) {
    return false;
  }
  return true;
}

// Inside an operation of the user, who hears by std::bad_alloc that nothing has happened.
void CallerCore::EndInside(const StatePtr& state, CallError error) {
  if (state->phase_ == CallState::Phase::kEnded) {
    return;
  }
  DeliverLater(state);
  TellTask(*state);
  Conclude(state, std::move(error));
}

void CallerCore::Conclude(const StatePtr& state, std::optional<CallError> error) noexcept {
  open_.Remove(*state);
  if (state->has_progress_) {
    progress_.erase(state->id_.value);
  }
  if (state->meter_ != nullptr) {
    const auto reason = error ? std::optional(error->GetReason()) : std::nullopt;
    meter_.End(state->meter_, reason, loop_->Now() - state->started_);
  }
  state->phase_ = CallState::Phase::kEnded;
  state->params_ = nullptr;
  state->error_ = std::move(error);
}

}  // namespace tarv::details
