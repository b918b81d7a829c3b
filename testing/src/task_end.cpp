#include "task_end.h"

#include <csignal>
#include <cstring>

namespace tarv::testing::details {

std::string TextOfSignal(int signal) {
  const char* const name = sigabbrev_np(signal);
  return "was killed by signal " + std::to_string(signal) +
         (name == nullptr ? "" : std::string(" (SIG") + name + ")");
}

std::string TextOfStatus(int status) { return "exited with status " + std::to_string(status); }

}  // namespace tarv::testing::details
