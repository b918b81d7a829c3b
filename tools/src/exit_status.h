// How tarvctl ends, for scripts.
#ifndef TARVCTL_EXIT_STATUS_H
#define TARVCTL_EXIT_STATUS_H

namespace tarvctl {

enum ExitStatus : int {
  kDone = 0,
  kAnsweredWithError = 1,  // the task, or what was compared, says no
  kUsage = 2,              // arguments or input that cannot be understood
  kNotConnected = 3,       // the task could not be started, or refuses the handshake
  kTimedOut = 4,
  kTaskEnded = 5,
  kInterrupted = 130,  // by Ctrl-C, as shells tell it
  kBrokenPipe = 141,   // nobody reads the results any more
};

}  // namespace tarvctl

#endif  // TARVCTL_EXIT_STATUS_H
