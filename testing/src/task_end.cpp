#include "task_end.h"

#include <csignal>
#include <cstring>
#include <regex>

namespace tarv::testing::details {

std::string TextOfSignal(int signal) {
  const char* const name = sigabbrev_np(signal);
  return "was killed by signal " + std::to_string(signal) +
         (name == nullptr ? "" : std::string(" (SIG") + name + ")");
}

std::string TextOfStatus(int status) { return "exited with status " + std::to_string(status); }

std::optional<TaskExit> ExitIn(const std::string& text) {
  static const std::regex kExit("(exited with status|was killed by signal) ([0-9]+)");
  std::smatch found;
  if (!std::regex_search(text, found, kExit)) {
    return std::nullopt;
  }
  const int number = std::stoi(found[2]);
  return found[1].str() == "exited with status" ? TaskExit{number, {}} : TaskExit{{}, number};
}

}  // namespace tarv::testing::details
