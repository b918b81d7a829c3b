#include "child_process.h"

#include <poll.h>
#include <sys/syscall.h>
#include <sys/wait.h>

#include <QtCore/QCoreApplication>
#include <QtCore/QThread>
#include <algorithm>
#include <array>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <set>
#include <utility>
#include <vector>

#include "support.h"

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

int OpenPidfd(pid_t pid) {
#ifdef SYS_pidfd_open
  return static_cast<int>(::syscall(SYS_pidfd_open, pid, 0U));
#else
  static_cast<void>(pid);
  return -1;
#endif
}

QString Describe(const siginfo_t& info) {
  if (info.si_code == CLD_EXITED) {
    return QString("exited with status %1").arg(info.si_status);
  }
  return QString("was killed by signal %1%2")
      .arg(SignalText(info.si_status), info.si_code == CLD_DUMPED ? ", core dumped," : "");
}

}  // namespace

// The children that nobody owns any more, until they are reaped; and those whose last words wait
// for a standard error that takes nothing. One per process, any thread.
class Orphanage {
 public:
  static Orphanage& Get() {
    // Never destroyed: it is needed until the very end of the process.
    static Orphanage* const orphanage = [] {
      std::atexit([] { Get().EndAll(); });
      return new Orphanage;
    }();
    return *orphanage;
  }
  void Add(std::shared_ptr<ChildProcess> child) {
    const std::lock_guard lock(mutex_);
    children_.insert(std::move(child));
  }
  void Remove(const std::shared_ptr<ChildProcess>& child) {
    const std::lock_guard lock(mutex_);
    children_.erase(child);
  }

 private:
  // At exit: whoever was asked to end and does not is ended, and last words are forwarded. Objects
  // of other threads are left alone; only processes are dealt with.
  void EndAll() {
    if (owner_ != ::getpid()) {
      return;
    }
    const std::lock_guard lock(mutex_);
    for (const auto& child : children_) {
      if (child->reaped_ || child->since_terminate_.isValid()) {
        child->EndNow();
      }
    }
  }

  const pid_t owner_ = ::getpid();
  std::mutex mutex_;
  std::set<std::shared_ptr<ChildProcess>> children_;
};

int ChildProcess::Start(const SpawnRequest& request, Callbacks callbacks,
                        std::shared_ptr<ChildProcess>* child) {
  Spawned spawned;
  const int error_number = Spawn(request, &spawned);
  if (error_number != 0) {
    return error_number;
  }
  child->reset(new ChildProcess(std::move(spawned), std::move(callbacks)));
  (*child)->Watch();
  return 0;
}

ChildProcess::ChildProcess(Spawned spawned, Callbacks callbacks)
    : pid_(spawned.pid),
      callbacks_(std::move(callbacks)),
      pidfd_(OpenPidfd(spawned.pid)),
      exec_status_(std::move(spawned.exec_status)),
      stderr_(std::move(spawned.stderr_pipe)) {
  since_start_.start();
}

void ChildProcess::Watch() {
  WatchEventLoop();
  exec_notifier_ = std::make_unique<QuietNotifier>(exec_status_.Get(), [this] { OnExecStatus(); });
  grace_.setSingleShot(true);
  grace_.setTimerType(Qt::PreciseTimer);
  QObject::connect(&grace_, &QTimer::timeout, &context_, [this] { Signal(SIGKILL); });
  QObject::connect(&poll_, &QTimer::timeout, &context_, [this] { OnMaybeEnded(); });
  if (!pidfd_.IsValid()) {
    poll_.start(kPollMs);
    return;
  }
  ended_notifier_ = std::make_unique<QuietNotifier>(pidfd_.Get(), [this] { OnMaybeEnded(); });
}

int ChildProcess::Terminate(bool kill) {
  if (reaped_) {
    return 0;
  }
  const int error_number = Signal(kill ? SIGKILL : SIGTERM);
  if (error_number != 0 || since_terminate_.isValid()) {
    return error_number;
  }
  since_terminate_.start();
  grace_.start(kGraceMs);
  return 0;
}

int ChildProcess::Signal(int signal) {
#ifdef SYS_pidfd_send_signal
  if (pidfd_.IsValid() &&
      ::syscall(SYS_pidfd_send_signal, pidfd_.Get(), signal, nullptr, 0U) == 0) {
    return 0;
  }
  if (pidfd_.IsValid() && errno != ENOSYS) {
    return errno == ESRCH ? 0 : errno;
  }
#endif
  // The number is safe to use while the process waits to be reaped here, and only then.
  siginfo_t info{};
  if (::waitid(P_PID, static_cast<id_t>(pid_), &info, WEXITED | WNOHANG | WNOWAIT) != 0) {
    return 0;
  }
  if (info.si_pid != 0 || ::kill(pid_, signal) == 0) {
    return 0;
  }
  return errno == ESRCH ? 0 : errno;
}

void ChildProcess::OnExecStatus() {
  const auto self = shared_from_this();
  int exec_error = 0;
  const ssize_t size = RetryOnEintr(
      [this, &exec_error] { return ::read(exec_status_.Get(), &exec_error, sizeof(exec_error)); });
  if (size < 0 && errno == EAGAIN) {
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
  if (reaped_ || !Reap()) {
    return;
  }
  grace_.stop();
  poll_.stop();
  if (ended_notifier_ != nullptr) {
    ended_notifier_->SetEnabled(false);
  }
  pidfd_.Reset();
  if (exec_status_.IsValid()) {
    OnExecStatus();
  }
  FinishStderr();
  end_.last_lines = stderr_.LastLines();
  const auto on_ended = std::move(callbacks_.on_ended);
  if (on_ended) {
    on_ended(end_);
  }
  if (!stderr_.HasPending()) {
    Orphanage::Get().Remove(self);
  }
}

// What this process's standard error does not take yet may outlive the Task.
void ChildProcess::FinishStderr() {
  stderr_.Finish([weak = weak_from_this()] {
    if (const auto self = weak.lock()) {
      Orphanage::Get().Remove(self);
    }
  });
  if (stderr_.HasPending()) {
    Keep();
  }
}

bool ChildProcess::Reap() {
  siginfo_t info{};
  const int result = RetryOnEintr(
      [this, &info] { return ::waitid(P_PID, static_cast<id_t>(pid_), &info, WEXITED | WNOHANG); });
  if (result == 0 && info.si_pid == 0) {
    return false;
  }
  reaped_ = true;
  end_.succeeded = result == 0 && info.si_code == CLD_EXITED && info.si_status == 0;
  // The application ignores SIGCHLD, or has waited for every child itself.
  end_.killed = result == 0 && info.si_code != CLD_EXITED;
  end_.how =
      result == 0 ? Describe(info) : QString("ended, and the application took its exit status,");
  end_.how += " after " + DurationText(since_start_.elapsed());
  return true;
}

void ChildProcess::Abandon() {
  callbacks_ = {};
  if (reaped_) {
    return;
  }
  if (Terminate(false) != 0) {
    Keep();
    return;
  }
  if (!HasEventLoop()) {
    EndNow();
    return;
  }
  Keep();
}

void ChildProcess::LetGo() {
  callbacks_ = {};
  let_go_ = true;
  if (!reaped_ && HasEventLoop()) {
    Keep();
  }
}

void ChildProcess::Keep() { Orphanage::Get().Add(shared_from_this()); }

void ChildProcess::WatchEventLoop() {
  const auto on_gone = [weak = weak_from_this()] {
    if (const auto self = weak.lock()) {
      self->OnEventLoopGone();
    }
  };
  QObject* application = QCoreApplication::instance();
  if (application != nullptr && application->thread() == QThread::currentThread()) {
    QObject::connect(application, &QObject::destroyed, &context_, on_gone);
  } else {
    QObject::connect(QThread::currentThread(), &QThread::finished, &context_, on_gone,
                     Qt::DirectConnection);
  }
}

// Nothing would wake this object any more, not even to reap: what shall end, ends now. That goes
// for a process whose Task still lives, too, for instance because it awaits its deferred deletion.
void ChildProcess::OnEventLoopGone() {
  callbacks_ = {};
  if (!let_go_) {
    if (!reaped_ && !since_terminate_.isValid()) {
      since_terminate_.start();
      Signal(SIGTERM);
    }
    EndNow();
  }
  Orphanage::Get().Remove(shared_from_this());
}

void ChildProcess::EndNow() {
  if (!reaped_ && !WaitUntil(kGraceMs)) {
    Signal(SIGKILL);
    WaitUntil(since_terminate_.elapsed() + kKillMs);
  }
  if (IsInItsThread()) {
    stderr_.FinishNow(kLastWordsMs);
  }
}

// A task that writes while it ends goes on when that is read.
bool ChildProcess::WaitUntil(qint64 deadline_ms) {
  const bool reads = IsInItsThread();
  while (!Reap()) {
    const qint64 left = deadline_ms - since_terminate_.elapsed();
    if (left <= 0) {
      return false;
    }
    // What has no descriptor is passed over.
    std::array<pollfd, 2> events{{{pidfd_.Get(), POLLIN, 0}, {-1, POLLIN, 0}}};
    if (reads) {
      events[1].fd = stderr_.WaitsFor();
    }
    ::poll(events.data(), events.size(), static_cast<int>(std::min<qint64>(left, kPollMs)));
    if (reads) {
      stderr_.Pump();
    }
  }
  return true;
}

}  // namespace RuntimeManager::host
