#include "task_end.h"

#include <charconv>
#include <csignal>
#include <cstring>
#include <string_view>
#include <system_error>

namespace tarv::testing::details {
namespace {

constexpr std::string_view kExited = "exited with status ";
constexpr std::string_view kKilled = "was killed by signal ";

std::optional<int> NumberBehind(const std::string& text, std::string_view words) {
  const std::size_t place = text.find(words);
  if (place == std::string::npos) {
    return std::nullopt;
  }
  const std::string_view rest = std::string_view(text).substr(place + words.size());
  int number = 0;
  const auto read = std::from_chars(rest.data(), rest.data() + rest.size(), number);
  return read.ec == std::errc() ? std::optional(number) : std::nullopt;
}

}  // namespace

std::string TextOfSignal(int signal) {
  const char* const name = sigabbrev_np(signal);
  return std::string(kKilled) + std::to_string(signal) +
         (name == nullptr ? "" : std::string(" (SIG") + name + ")");
}

std::string TextOfStatus(int status) { return std::string(kExited) + std::to_string(status); }

std::optional<TaskExit> ExitIn(const std::string& text) {
  if (const auto status = NumberBehind(text, kExited)) {
    return TaskExit{status, {}};
  }
  if (const auto signal = NumberBehind(text, kKilled)) {
    return TaskExit{{}, signal};
  }
  return std::nullopt;
}

}  // namespace tarv::testing::details
