// A scope in which SIGPIPE does no harm.
#ifndef RUNTIME_MANAGER_HOST_SIGPIPE_GUARD_H
#define RUNTIME_MANAGER_HOST_SIGPIPE_GUARD_H

#include <csignal>

namespace RuntimeManager::host {

// Keeps a write to a pipe without a reader from killing the process, for its scope and thread only:
// the application's disposition of SIGPIPE stays as it is.
class SigpipeGuard {
 public:
  SigpipeGuard();
  ~SigpipeGuard();
  SigpipeGuard(const SigpipeGuard&) = delete;
  SigpipeGuard& operator=(const SigpipeGuard&) = delete;

 private:
  sigset_t sigpipe_{};
  sigset_t before_{};
  bool was_pending_ = false;
};

}  // namespace RuntimeManager::host

#endif  // RUNTIME_MANAGER_HOST_SIGPIPE_GUARD_H
