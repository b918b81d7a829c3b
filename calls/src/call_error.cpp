#include <tarv/calls/call_error.h>

#include <array>
#include <cstddef>

namespace tarv {

std::string_view NameOf(CallReason reason) {
  static constexpr std::array<std::string_view, 14> kNames{
      "kAnswered",   "kTimedOut",   "kCancelled",      "kNotStarted", "kNeverConnected",
      "kTaskExited", "kTaskKilled", "kConnectionLost", "kTooLarge",   "kBadArguments",
      "kBadAnswer",  "kReleased",   "kCrashLoop",      "kWouldBlock"};
  return kNames.at(static_cast<std::size_t>(reason));
}

}  // namespace tarv
