#include <tarv/calls/kept_task.h>

#include <algorithm>
#include <deque>
#include <vector>

#include "caller_core.h"
#include "guarded.h"

namespace tarv {

namespace {

CallerOptions OptionsFor(const std::string& name, const KeepPolicy& policy) {
  return CallerOptions().TaskName(name).ConnectTimeout(policy.connect_timeout);
}

// No client when the manager is gone.
KeptTask::Factory FactoryOf(const ManagerWrapper& manager, const std::string& name) {
  return [&manager, lifetime = manager.GetLifetime(), name] {
    return lifetime.expired() ? nullptr : manager.CreateIpcClient(name);
  };
}

}  // namespace

// Decides when the task is started. Belongs to the loop's thread.
class details::KeptTaskCore final : public Supervisor,
                                    public std::enable_shared_from_this<KeptTaskCore> {
 public:
  using State = TaskStatus::State;

  KeptTaskCore(KeptTask::Factory factory, std::function<bool()> has_manager_ended,
               const KeepPolicy& policy, std::shared_ptr<CallerCore> calls)
      : factory_(std::move(factory)),
        has_manager_ended_(std::move(has_manager_ended)),
        policy_(policy),
        calls_(std::move(calls)) {}

  void OnClientWanted() override {
    Post([](KeptTaskCore& core) { core.Consider(); });
  }
  void OnConnected() override { Change({State::kConnected, std::nullopt}); }
  void OnLost(const Loss& loss) override {
    is_over_ = is_over_ || (has_manager_ended_ && loss.is_final);
    deaths_.push_back(calls_->GetLoop()->Now());
    last_ = loss;
    not_before_ = deaths_.back() + Pause();
    Change({State::kEnded, ErrorOf(loss)});
    if (policy_.restart == Restart::kAtOnce) {
      Consider();
    }
  }

  void AddHandler(const std::string& method, KeptTask::NotificationHandler handler) {
    const auto shared = std::make_shared<KeptTask::NotificationHandler>(std::move(handler));
    handlers_.emplace_back(method, shared);
    if (client_) {
      Hear(*client_, handlers_.back());
    }
  }
  void Watch(std::function<void(const TaskStatus&)> watcher) { watcher_ = std::move(watcher); }
  const TaskStatus& GetStatus() const { return status_; }

 private:
  using HandlerPtr = std::shared_ptr<KeptTask::NotificationHandler>;
  struct Hearing {};

  template <class Function>
  void Post(Function function) {
    calls_->GetLoop()->Post([weak = weak_from_this(), function] {
      if (const auto core = weak.lock()) {
        function(*core);
      }
    });
  }

  // Starts the task, or sees to it that it is started, or says why not.
  void Consider() {
    if (status_.state != State::kStopped && status_.state != State::kEnded) {
      return;
    }
    if (last_ && (policy_.restart == Restart::kNever || is_over_)) {
      calls_->FailKept(*last_);
    } else if (IsCrashLoop()) {
      GiveUp(LossOfCrashLoop());
    } else if (last_ && calls_->GetLoop()->Now() < not_before_) {
      WaitForPause();
    } else {
      StartTask();
    }
  }

  void GiveUp(const Loss& loss) {
    if (!status_.why || status_.why->GetReason() != loss.reason) {
      Change({State::kEnded, ErrorOf(loss)});
    }
    calls_->FailKept(loss);
  }

  void WaitForPause() {
    Change({State::kWaiting, ErrorOf(*last_)});
    calls_->GetLoop()->WakeAt(not_before_, [weak = weak_from_this()] {
      if (const auto core = weak.lock()) {
        core->StartTask();
      }
    });
  }

  void StartTask() {
    const auto self = shared_from_this();  // the factory may end everything
    Change({State::kStarting, std::nullopt});
    RunGuarded("the factory", calls_->GetTaskName(), [this] { client_ = factory_(); });
    hearing_ = std::make_shared<Hearing>();
    if (!client_) {
      const bool has_ended = has_manager_ended_ && has_manager_ended_();
      const Loss loss = has_ended ? LossOfManager(EndedManager::kOwn) : LossOfMissingClient();
      OnLost(loss);
      calls_->FailKept(loss);
      return;
    }
    for (const auto& handler : handlers_) {
      Hear(*client_, handler);
    }
    calls_->Attach(client_);
  }

  // A client that is let go of may live a little longer, unheard.
  void Hear(vorpc::IClient& client, const std::pair<std::string, HandlerPtr>& handler) const {
    client.OnNotify(handler.first, [shared = handler.second, hearing = std::weak_ptr(hearing_)](
                                       const vorpc::Message::Notification& notification) {
      if (!hearing.expired()) {
        (*shared)(notification);
      }
    });
  }

  void Change(TaskStatus status) {
    if (status.state != State::kStarting && status.state != State::kConnected) {
      client_.reset();
      hearing_.reset();
    }
    status_ = std::move(status);
    Post([status = status_](KeptTaskCore& core) {
      if (const auto watcher = core.watcher_) {
        RunGuarded("the watcher", core.calls_->GetTaskName(), [&] { watcher(status); });
      }
    });
  }

  bool IsCrashLoop() {
    ForgetOldDeaths();
    return deaths_.size() >= policy_.most_deaths;
  }
  void ForgetOldDeaths() {
    const Loop::Time now = calls_->GetLoop()->Now();
    while (!deaths_.empty() && now - deaths_.front() >= policy_.window) {
      deaths_.pop_front();
    }
  }
  Duration Pause() {
    ForgetOldDeaths();
    Duration pause = policy_.first_pause;
    for (std::size_t i = 1; i < deaths_.size() && pause < policy_.longest_pause; ++i) {
      pause *= 2;
    }
    return std::min(pause, policy_.longest_pause);
  }
  Loss LossOfCrashLoop() const {
    return {CallReason::kCrashLoop, last_->code,
            TextOfTask(calls_->GetTaskName()) + " has died " + std::to_string(deaths_.size()) +
                " times within " + TextOf(policy_.window) +
                " and is not started again for now; its last words: " + last_->text};
  }
  static CallError ErrorOf(const Loss& loss) {
    return {loss.reason, loss.text, loss.code, loss.text, {}};
  }

  const KeptTask::Factory factory_;
  const std::function<bool()> has_manager_ended_;  // null unless its end is the task's, for good
  const KeepPolicy policy_;
  const std::shared_ptr<CallerCore> calls_;
  std::shared_ptr<vorpc::IClient> client_;
  std::shared_ptr<Hearing> hearing_;  // as long as that client is heard
  std::vector<std::pair<std::string, HandlerPtr>> handlers_;
  std::function<void(const TaskStatus&)> watcher_;
  TaskStatus status_;
  std::deque<Loop::Time> deaths_;  // within the window
  std::optional<Loss> last_;
  Loop::Time not_before_;
  bool is_over_ = false;
};

KeptTask::KeptTask(Factory factory, std::function<bool()> has_manager_ended,
                   const std::string& name, const KeepPolicy& policy, std::shared_ptr<Loop> loop)
    : calls_(std::make_shared<details::CallerCore>(std::move(loop), OptionsFor(name, policy))),
      core_(std::make_shared<details::KeptTaskCore>(std::move(factory),
                                                    std::move(has_manager_ended), policy, calls_)) {
  calls_->SetSupervisor(core_);
}

KeptTask::KeptTask(Factory factory, const std::string& name, const KeepPolicy& policy,
                   std::shared_ptr<Loop> loop)
    : KeptTask(std::move(factory), nullptr, name, policy, std::move(loop)) {}

KeptTask::KeptTask(const ManagerWrapper& manager, const std::string& name, const KeepPolicy& policy,
                   std::shared_ptr<Loop> loop)
    : KeptTask(
          FactoryOf(manager, name),
          [lifetime = manager.GetLifetime()] { return lifetime.expired(); }, name, policy,
          std::move(loop)) {}

KeptTask::~KeptTask() {
  calls_->Close();
  core_.reset();
}

void KeptTask::OnNotify(const std::string& method, NotificationHandler handler) {
  core_->AddHandler(method, std::move(handler));
}

TaskStatus KeptTask::GetStatus() const { return core_->GetStatus(); }

void KeptTask::OnChange(std::function<void(const TaskStatus&)> watcher) {
  core_->Watch(std::move(watcher));
}

Metrics KeptTask::GetMetrics() const { return calls_->GetMeter().GetMetrics(); }

}  // namespace tarv
