// A child process as the system knows it.
#ifndef RUNTIME_MANAGER_HOST_CHILD_HANDLE_H
#define RUNTIME_MANAGER_HOST_CHILD_HANDLE_H

#include <sys/types.h>

#include <atomic>
#include <csignal>
#include <mutex>
#include <optional>

#include "unique_fd.h"

namespace RuntimeManager::host {

// Readable when the process has ended. Invalid when there is no such process, or on a system without
// such descriptors.
UniqueFd OpenProcess(pid_t pid);

// Signals a child, and reaps it. Any thread: at the exit of the process, the thread that leaves ends
// the children of all.
class ChildHandle {
 public:
  explicit ChildHandle(pid_t pid);

  pid_t GetPid() const { return pid_; }
  // Readable when the process has ended. -1 on systems without such descriptors.
  int GetDescriptor() const;
  // For the owner, when nothing watches it any more.
  void CloseDescriptor();

  // An error number; 0 also when the process has ended already.
  int Signal(int signal);
  // Asks the process to end by SIGTERM, if nobody has. As Signal().
  int AskToEnd();
  // Whether the process is gone, and reaped.
  bool Reap();
  // What the system said about the end of a reaped process; nothing when the application ignores
  // SIGCHLD, or has waited for every child itself.
  std::optional<siginfo_t> GetEnd() const;

 private:
  int SignalByNumber(int signal) const;

  const pid_t pid_;
  std::atomic<bool> is_asked_{false};
  mutable std::mutex mutex_;  // guards what follows
  UniqueFd descriptor_;
  bool is_reaped_ = false;
  int vain_reaps_ = 0;
  std::optional<siginfo_t> end_;
};

}  // namespace RuntimeManager::host

#endif  // RUNTIME_MANAGER_HOST_CHILD_HANDLE_H
