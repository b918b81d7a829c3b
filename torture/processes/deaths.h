// The ways in which a process can die, or only stop for a while.
#ifndef TORTURE_PROCESSES_DEATHS_H
#define TORTURE_PROCESSES_DEATHS_H

#include <signal.h>
#include <unistd.h>

#include <array>
#include <cstdlib>
#include <string>

namespace tarv::test {

struct Death {
  const char* name;
  int status;        // how a shell tells the end: the exit status, or 128 and the signal
  int code;          // of the errors that tell of it
  const char* text;  // in those errors
  bool is_stop;      // the process stops; somebody has to end it, or to let it go on
};

// Letting a process go on is no death, and has no error.
constexpr std::array<Death, 6> kDeaths{{
    {"kill", 128 + SIGKILL, -32002, "was killed by signal 9 (SIGKILL)", false},
    {"segv", 128 + SIGSEGV, -32002, "was killed by signal 11 (SIGSEGV)", false},
    {"exit-0", 0, -32001, "exited with status 0", false},
    {"exit-1", 1, -32001, "exited with status 1", false},
    {"stop-kill", 128 + SIGKILL, -32002, "was killed by signal 9 (SIGKILL)", true},
    {"stop-cont", 0, 0, "", true},
}};

inline bool GoesOn(const Death& death) { return death.is_stop && death.code == 0; }

// Returns only when the process has been let go on.
inline void Die(const std::string& death) {
  if (death == "kill") {
    raise(SIGKILL);
  } else if (death == "segv") {
    signal(SIGSEGV, SIG_DFL);
    raise(SIGSEGV);
  } else if (death == "exit-0") {
    std::exit(0);
  } else if (death == "exit-1") {
    _exit(1);
  } else {
    raise(SIGSTOP);
  }
}

}  // namespace tarv::test

#endif  // TORTURE_PROCESSES_DEATHS_H
