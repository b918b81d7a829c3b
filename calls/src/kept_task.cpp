#include <tarv/calls/kept_task.h>

#include <algorithm>
#include <cstdint>
#include <new>
#include <utility>
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
        calls_(std::move(calls)) {
    deaths_.reserve(1);
  }

  void OnClientWanted() override {
    Post([](KeptTaskCore& core) { core.Consider(); });
  }
  void OnConnected() noexcept override {
    const Turn turn(*this);
    Change({State::kConnected, std::nullopt});
  }
  void OnLost(const Loss& loss) noexcept override {
    const Turn turn(*this);
    is_over_ = is_over_ || (has_manager_ended_ && loss.is_final);
    AddDeath();
    last_ = loss;
    not_before_ = deaths_.back() + Pause();
    Change({State::kEnded, ErrorOf(loss)});
    if (policy_.restart == Restart::kAtOnce) {
      Consider();
    }
  }

  // Throws std::bad_alloc: nothing has changed then.
  void AddHandler(const std::string& method, KeptTask::NotificationHandler handler) {
    const auto shared = std::make_shared<KeptTask::NotificationHandler>(std::move(handler));
    handlers_.emplace_back(method, shared);
    try {
      if (client_) {
        Hear(*client_, handlers_.back());
      }
    } catch (...) {
      handlers_.pop_back();
      throw;
    }
  }
  void Watch(std::function<void(const TaskStatus&)> watcher) {
    watcher_ = std::make_shared<const Watcher>(std::move(watcher));
  }
  const TaskStatus& GetStatus() const { return status_; }

 private:
  using HandlerPtr = std::shared_ptr<KeptTask::NotificationHandler>;
  using Watcher = std::function<void(const TaskStatus&)>;
  struct Hearing {};

  // One thing that happens, perhaps inside another. When memory runs out for telling a change later,
  // the end of the outermost tells it.
  class Turn {
   public:
    explicit Turn(KeptTaskCore& core) : core_(core) { ++core_.turns_; }
    ~Turn() {
      if (--core_.turns_ == 0 && std::exchange(core_.is_untold_, false)) {
        core_.Tell(core_.changes_, core_.status_);
      }
    }
    Turn(const Turn&) = delete;
    Turn& operator=(const Turn&) = delete;

   private:
    KeptTaskCore& core_;
  };

  template <class Function>
  void Post(Function function) {
    calls_->GetLoop()->Post([weak = weak_from_this(), function] {
      if (const auto core = weak.lock()) {
        function(*core);
      }
    });
  }

  // Starts the task, or sees to it that it is started, or says why not.
  void Consider() noexcept {
    const Turn turn(*this);
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

  void GiveUp(const Loss& loss) noexcept {
    if (!status_.why || status_.why->GetReason() != loss.reason) {
      Change({State::kEnded, ErrorOf(loss)});
    }
    calls_->FailKept(loss);
  }

  // Without memory for that, the next call tries again.
  void WaitForPause() noexcept {
    Change({State::kWaiting, ErrorOf(*last_)});
    try {
      calls_->GetLoop()->WakeAt(not_before_, [weak = weak_from_this()] {
        if (const auto core = weak.lock()) {
          core->StartTask();
        }
      });
    } catch (const std::bad_alloc&) {
      GiveUp(LossOfMemory());
    }
  }

  void StartTask() noexcept {
    const auto self = weak_from_this().lock();  // the factory may end everything
    const Turn turn(*this);
    Change({State::kStarting, std::nullopt});
    try {
      deaths_.reserve(deaths_.size() + 1);
      MakeClient();
    } catch (const std::bad_alloc&) {
      Fail(LossOfMemory());
    }
  }

  void MakeClient() {
    RunGuarded("the factory", calls_->GetTaskName(), [this] { client_ = factory_(); });
    if (!client_) {
      const bool has_ended = has_manager_ended_ && has_manager_ended_();
      Fail(has_ended ? LossOfManager(EndedManager::kOwn) : LossOfMissingClient());
      return;
    }
    hearing_ = std::make_shared<Hearing>();
    for (const auto& handler : handlers_) {
      Hear(*client_, handler);
    }
    calls_->Attach(client_);
  }

  void Fail(const Loss& loss) noexcept {
    OnLost(loss);
    calls_->FailKept(loss);
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

  void Change(TaskStatus&& status) noexcept {
    if (status.state != State::kStarting && status.state != State::kConnected) {
      client_.reset();
      hearing_.reset();
    }
    status_ = std::move(status);
    try {
      Post([number = ++changes_, status = status_](KeptTaskCore& core) {
        core.Tell(number, status);
      });
    } catch (const std::bad_alloc&) {
      is_untold_ = true;
    }
  }

  // Not what has been overtaken by what there was no memory for.
  void Tell(std::uint64_t number, TaskStatus status) noexcept {
    if (number <= told_) {
      return;
    }
    told_ = number;
    if (const auto watcher = watcher_; watcher && *watcher) {
      RunGuarded("the watcher", calls_->GetTaskName(), [&] { (*watcher)(status); });
    }
  }

  // Where there is no room for one more, it takes the latest one's.
  void AddDeath() noexcept {
    const Loop::Time now = calls_->GetLoop()->Now();
    if (deaths_.size() < deaths_.capacity()) {
      deaths_.push_back(now);
    } else {
      deaths_.back() = now;
    }
  }
  bool IsCrashLoop() noexcept {
    ForgetOldDeaths();
    return deaths_.size() >= policy_.most_deaths;
  }
  void ForgetOldDeaths() noexcept {
    const Loop::Time now = calls_->GetLoop()->Now();
    const auto young = std::find_if(deaths_.begin(), deaths_.end(),
                                    [&](Loop::Time death) { return now - death < policy_.window; });
    deaths_.erase(deaths_.begin(), young);
  }
  Duration Pause() noexcept {
    ForgetOldDeaths();
    Duration pause = policy_.first_pause;
    for (std::size_t i = 1; i < deaths_.size() && pause < policy_.longest_pause; ++i) {
      pause *= 2;
    }
    return std::min(pause, policy_.longest_pause);
  }
  Loss LossOfCrashLoop() const noexcept {
    return {CallReason::kCrashLoop, last_->code, MakeText([this] {
              return TextOfTask(calls_->GetTaskName()) + " has died " +
                     std::to_string(deaths_.size()) + " times within " + TextOf(policy_.window) +
                     " and is not started again for now" +
                     (last_->text ? "; its last words: " + *last_->text : std::string());
            })};
  }
  CallError ErrorOf(const Loss& loss) const noexcept {
    return details::ErrorOf(loss, calls_->GetPreparedError());
  }

  const KeptTask::Factory factory_;
  const std::function<bool()> has_manager_ended_;  // null unless its end is the task's, for good
  const KeepPolicy policy_;
  const std::shared_ptr<CallerCore> calls_;
  std::shared_ptr<vorpc::IClient> client_;
  std::shared_ptr<Hearing> hearing_;  // as long as that client is heard
  std::vector<std::pair<std::string, HandlerPtr>> handlers_;
  std::shared_ptr<const Watcher> watcher_;
  TaskStatus status_;
  std::uint64_t changes_ = 0;       // of the status
  std::uint64_t told_ = 0;          // the latest of these that the watcher has heard of
  bool is_untold_ = false;          // memory ran out for telling the latest
  int turns_ = 0;                   // inside each other
  std::vector<Loop::Time> deaths_;  // within the window; has room before a start
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
