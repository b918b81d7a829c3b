#include "child_process.h"

#include <poll.h>
#include <sys/wait.h>

#include <QtCore/QCoreApplication>
#include <QtCore/QThread>
#include <algorithm>
#include <cerrno>
#include <csignal>
#include <utility>

#include "process_exit.h"
#include "support.h"
#include "trace.h"
#include "want_of_memory.h"

namespace RuntimeManager::host {
namespace {

// What a task gets to end by itself after SIGTERM.
constexpr int kGraceMs = 3000;
// What a killed process takes to be gone; longer only inside the kernel.
constexpr int kKillMs = 1000;
// What a standard error that takes nothing gets for a task's last words when nobody can wait
// longer.
constexpr int kLastWordsMs = 3000;
// How often a child is looked after where processes have no descriptors.
constexpr int kPollMs = 20;

QString Describe(const siginfo_t& info) {
  if (info.si_code == CLD_EXITED) {
    return QString("exited with status %1").arg(info.si_status);
  }
  return QString("was killed by signal %1%2")
      .arg(SignalText(info.si_status), info.si_code == CLD_DUMPED ? ", core dumped," : "");
}

// For a process that has just been forked, and that nobody could watch.
void KillAndReap(pid_t pid) {
  ::kill(pid, SIGKILL);
  RetryOnEintr([pid] { return ::waitpid(pid, nullptr, 0); });
}

}  // namespace

int ChildProcess::Start(const SpawnRequest& request, Callbacks callbacks,
                        std::shared_ptr<ChildProcess>* child) {
  // What the child does comes later in the record.
  const long long time = IsRecorded() ? RecordTime() : 0;
  Spawned spawned;
  const int error_number = Spawn(request, &spawned);
  if (error_number != 0) {
    return error_number;
  }
  const pid_t pid = spawned.pid;
  try {
    child->reset(new ChildProcess(std::move(spawned), request, std::move(callbacks)));
    (*child)->RecordStart(request, time);
    ProcessExit::Get().AddChild(*child);
    (*child)->Watch();
  } catch (const std::bad_alloc&) {
    KillAndReap(pid);
    ProcessExit::Get().RemoveChild(*child);
    child->reset();
    return ENOMEM;
  }
  return 0;
}

ChildProcess::ChildProcess(Spawned spawned, const SpawnRequest& request, Callbacks callbacks)
    : handle_(spawned.pid),
      ends_with_starter_(request.dies_with_starter),
      task_(QString::fromUtf8(request.task_name)),
      callbacks_(std::move(callbacks)),
      exec_status_(std::move(spawned.exec_status)),
      stderr_(task_, std::move(spawned.stderr_pipe)) {
  since_start_.start();
}

void ChildProcess::Watch() {
  exec_notifier_ = std::make_unique<QuietNotifier>(exec_status_.Get(), [this] { OnExecStatus(); });
  grace_.setSingleShot(true);
  grace_.setTimerType(Qt::PreciseTimer);
  QObject::connect(&grace_, &QTimer::timeout, &grace_, [this] { handle_.Signal(SIGKILL); });
  WatchEventLoop();
  QObject::connect(&poll_, &QTimer::timeout, &poll_, [this] { OnMaybeEnded(); });
  if (handle_.GetDescriptor() < 0) {
    StartTimer(poll_, kPollMs);
    return;
  }
  ended_notifier_ =
      std::make_unique<QuietNotifier>(handle_.GetDescriptor(), [this] { OnMaybeEnded(); });
}

int ChildProcess::Terminate(bool kill) {
  const int error_number = kill ? handle_.Signal(SIGKILL) : handle_.AskToEnd();
  // Without an event loop, whoever waits for the end keeps the time.
  if (error_number != 0 || end_told_ || grace_.isActive() || !HasEventLoop()) {
    return error_number;
  }
  // Without memory for a timer nobody would come back to it.
  return Attempt([this] { StartTimer(grace_, kGraceMs); }) ? 0 : handle_.Signal(SIGKILL);
}

void ChildProcess::OnExecStatus() {
  const auto self = shared_from_this();
  int exec_error = 0;
  const ssize_t size = RetryOnEintr(
      [this, &exec_error] { return ::read(exec_status_.Get(), &exec_error, sizeof(exec_error)); });
  if (size < 0 && errno == EAGAIN && ++vain_reads_ < kMostVainTries) {
    return;
  }
  exec_notifier_->SetEnabled(false);
  exec_status_.Reset();
  // The child is about to end; that is when the failure is told.
  if (size == sizeof(exec_error)) {
    end_.exec_error = exec_error;
  }
  if (end_.exec_error != 0 || std::exchange(running_told_, true)) {
    return;
  }
  if (const auto on_running = std::move(callbacks_.on_running)) {
    on_running();
  }
}

void ChildProcess::OnMaybeEnded() {
  const auto self = shared_from_this();
  if (end_told_ || !handle_.Reap()) {
    return;
  }
  end_told_ = true;
  const std::optional<siginfo_t> info = handle_.GetEnd();
  end_.succeeded = info && info->si_code == CLD_EXITED && info->si_status == 0;
  end_.killed = info && info->si_code != CLD_EXITED;
  end_.how = MadeOr([this] { return HowItEnded(); }, QStringLiteral("ended"));
  RecordEnd();
  StopWatching();
  if (exec_status_.IsValid()) {
    OnExecStatus();
  }
  FinishStderr();
  end_.last_lines = MadeOr([this] { return stderr_.LastLines(); }, QString());
  const auto on_ended = std::move(callbacks_.on_ended);
  if (on_ended) {
    on_ended(end_);
  }
}

void ChildProcess::StopWatching() {
  grace_.stop();
  poll_.stop();
  if (ended_notifier_ != nullptr) {
    ended_notifier_->SetEnabled(false);
  }
  handle_.CloseDescriptor();
}

// What this process's standard error does not take yet may outlive the Task.
void ChildProcess::FinishStderr() {
  const auto remove = [weak = weak_from_this()] {
    if (const auto self = weak.lock()) {
      ProcessExit::Get().RemoveChild(self);
    }
  };
  if (!Attempt([this, &remove] { stderr_.Finish(remove); })) {
    stderr_.Drop();
  }
  if (!stderr_.HasPending()) {
    remove();
  }
}

QString ChildProcess::HowItEnded() const {
  const std::optional<siginfo_t> info = handle_.GetEnd();
  return (info ? Describe(*info)
               : QStringLiteral("ended, and the application took its exit status,")) +
         " after " + DurationText(since_start_.elapsed());
}

void ChildProcess::RecordStart(const SpawnRequest& request, long long time) const {
  if (IsRecorded() && !task_.isEmpty()) {
    TraceEvent(task_, "start",
               {{"process", GetPid()},
                {"program", QString::fromUtf8(request.program)},
                {"starter", QString::fromLocal8Bit(program_invocation_short_name)}},
               time);
  }
}

// Whoever reaps it first does this, on whatever thread.
void ChildProcess::RecordEnd() {
  if (IsRecorded() && !task_.isEmpty() && !end_recorded_.exchange(true)) {
    Attempt([this] {
      TraceEvent(task_, "end", {{"process", GetPid()}, {"reason", HowItEnded()}});
    });
  }
}

void ChildProcess::Abandon() {
  if (IsForkedCopy()) {
    return;
  }
  callbacks_ = {};
  if (end_told_ || Terminate(false) != 0 || HasEventLoop()) {
    return;
  }
  EndAll({shared_from_this()});
  ProcessExit::Get().RemoveChild(shared_from_this());
}

void ChildProcess::LetGo() { callbacks_ = {}; }

// The timer stands for this object, and has had a connection before: QObject::connect() leaves a freed
// connection with the sender, which outlives this object, when it gets no memory for its receiver's
// first one.
void ChildProcess::WatchEventLoop() {
  const auto on_gone = [weak = weak_from_this()] {
    if (const auto self = weak.lock()) {
      self->OnEventLoopGone();
    }
  };
  QObject* application = QCoreApplication::instance();
  if (application != nullptr && application->thread() == QThread::currentThread()) {
    QObject::connect(application, &QObject::destroyed, &grace_, on_gone);
  } else {
    QObject::connect(QThread::currentThread(), &QThread::finished, &grace_, on_gone,
                     Qt::DirectConnection);
  }
}

// Nothing would wake this object any more, not even to reap: what shall end, ends now. That goes
// for a process whose Task still lives, too, for instance because it awaits its deferred deletion.
// The first child of the thread that hears of it ends them all.
void ChildProcess::OnEventLoopGone() {
  if (IsForkedCopy()) {
    return;
  }
  const auto self = shared_from_this();
  callbacks_ = {};
  loop_is_gone_ = true;
  ProcessExit::Get().EndChildrenOfThisThread();
  ProcessExit::Get().RemoveChild(self);
}

// Children that are waited for together.
class ChildProcess::Ending {
 public:
  explicit Ending(const std::vector<std::shared_ptr<ChildProcess>>& children);
  void AskAll();
  void KillAll();
  // Until all are gone, or the time is over.
  void Wait(int limit_ms);
  void ForwardLastWords();

 private:
  void ForgetReaped();
  void WaitForNews(int limit_ms);

  std::vector<ChildProcess*> all_;
  std::vector<ChildProcess*> left_;
};

ChildProcess::Ending::Ending(const std::vector<std::shared_ptr<ChildProcess>>& children) {
  for (const auto& child : children) {
    if (child->ends_with_starter_) {
      all_.push_back(child.get());
    }
  }
  left_ = all_;
}

void ChildProcess::Ending::AskAll() {
  for (ChildProcess* child : left_) {
    child->handle_.AskToEnd();
  }
}

void ChildProcess::Ending::KillAll() {
  for (ChildProcess* child : left_) {
    child->handle_.Signal(SIGKILL);
  }
}

void ChildProcess::Ending::Wait(int limit_ms) {
  QElapsedTimer since;
  since.start();
  for (ForgetReaped(); !left_.empty() && since.elapsed() < limit_ms; ForgetReaped()) {
    WaitForNews(static_cast<int>(limit_ms - since.elapsed()));
  }
}

void ChildProcess::Ending::ForgetReaped() {
  const auto is_reaped = [](ChildProcess* child) {
    const bool reaped = child->handle_.Reap();
    if (reaped) {
      child->RecordEnd();
    }
    return reaped;
  };
  left_.erase(std::remove_if(left_.begin(), left_.end(), is_reaped), left_.end());
}

// A task that writes while it ends goes on when that is read.
void ChildProcess::Ending::WaitForNews(int limit_ms) {
  std::vector<pollfd> events;  // what has no descriptor is passed over
  for (const ChildProcess* child : left_) {
    events.push_back({child->handle_.GetDescriptor(), POLLIN, 0});
    if (child->IsInItsThread()) {
      events.push_back({child->stderr_.WaitsFor(), POLLIN, 0});
    }
  }
  ::poll(events.data(), events.size(), std::clamp(limit_ms, 0, kPollMs));
  for (ChildProcess* child : left_) {
    if (child->IsInItsThread()) {
      child->stderr_.Pump();
    }
  }
}

void ChildProcess::Ending::ForwardLastWords() {
  for (ChildProcess* child : all_) {
    if (child->IsInItsThread()) {
      child->stderr_.FinishNow(kLastWordsMs);
    }
  }
}

void ChildProcess::EndAll(const std::vector<std::shared_ptr<ChildProcess>>& children) {
  Ending ending(children);
  ending.AskAll();
  ending.Wait(kGraceMs);
  ending.KillAll();
  ending.Wait(kKillMs);
  ending.ForwardLastWords();
}

}  // namespace RuntimeManager::host
