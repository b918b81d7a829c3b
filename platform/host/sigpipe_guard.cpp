#include "sigpipe_guard.h"

#include <pthread.h>

#include <ctime>

#include "support.h"

namespace RuntimeManager::host {

SigpipeGuard::SigpipeGuard() {
  ::sigemptyset(&sigpipe_);
  ::sigaddset(&sigpipe_, SIGPIPE);
  sigset_t pending;
  ::sigpending(&pending);
  was_pending_ = ::sigismember(&pending, SIGPIPE) == 1;
  ::pthread_sigmask(SIG_BLOCK, &sigpipe_, &before_);
}

SigpipeGuard::~SigpipeGuard() {
  const timespec at_once{};
  // Takes back the signal that the write raised, but none that waited before.
  if (!was_pending_) {
    RetryOnEintr([this, &at_once] { return ::sigtimedwait(&sigpipe_, nullptr, &at_once); });
  }
  ::pthread_sigmask(SIG_SETMASK, &before_, nullptr);
}

}  // namespace RuntimeManager::host
