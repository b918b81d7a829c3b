#include "child_handle.h"

#include <sys/syscall.h>
#include <sys/wait.h>

#include <cerrno>

#include "support.h"

namespace RuntimeManager::host {

UniqueFd OpenProcess(pid_t pid) {
#ifdef SYS_pidfd_open
  return UniqueFd(static_cast<int>(::syscall(SYS_pidfd_open, pid, 0U)));
#else
  static_cast<void>(pid);
  return UniqueFd();
#endif
}

ChildHandle::ChildHandle(pid_t pid) : pid_(pid), descriptor_(OpenProcess(pid)) {}

int ChildHandle::GetDescriptor() const {
  const std::lock_guard lock(mutex_);
  return descriptor_.Get();
}

int ChildHandle::Signal(int signal) {
  const std::lock_guard lock(mutex_);
  if (is_reaped_) {
    return 0;
  }
#ifdef SYS_pidfd_send_signal
  if (descriptor_.IsValid() &&
      ::syscall(SYS_pidfd_send_signal, descriptor_.Get(), signal, nullptr, 0U) == 0) {
    return 0;
  }
  if (descriptor_.IsValid() && errno == ESRCH) {
    return 0;
  }
#endif
  return SignalByNumber(signal);
}

// The number is safe to use while the process waits to be reaped here, and only then.
int ChildHandle::SignalByNumber(int signal) const {
  siginfo_t info{};
  const int result = RetryOnEintr([this, &info] {
    return ::waitid(P_PID, static_cast<id_t>(pid_), &info, WEXITED | WNOHANG | WNOWAIT);
  });
  if (result != 0) {
    return errno == ECHILD ? 0 : errno;
  }
  if (info.si_pid != 0 || ::kill(pid_, signal) == 0) {
    return 0;
  }
  return errno == ESRCH ? 0 : errno;
}

int ChildHandle::AskToEnd() {
  if (is_asked_) {
    return 0;
  }
  const int error_number = Signal(SIGTERM);
  is_asked_ = error_number == 0;
  return error_number;
}

bool ChildHandle::Reap() {
  const std::lock_guard lock(mutex_);
  if (is_reaped_) {
    return true;
  }
  siginfo_t info{};
  const int result = RetryOnEintr(
      [this, &info] { return ::waitid(P_PID, static_cast<id_t>(pid_), &info, WEXITED | WNOHANG); });
  if (result == 0 && info.si_pid == 0) {
    return false;
  }
  // The application may have taken the child; any other failure passes, or there is no way to learn more.
  if (result != 0 && errno != ECHILD && ++vain_reaps_ < kMostVainTries) {
    return false;
  }
  is_reaped_ = true;
  if (result == 0) {
    end_ = info;
  }
  return true;
}

void ChildHandle::CloseDescriptor() {
  const std::lock_guard lock(mutex_);
  descriptor_.Reset();
}

std::optional<siginfo_t> ChildHandle::GetEnd() const {
  const std::lock_guard lock(mutex_);
  return end_;
}

}  // namespace RuntimeManager::host
