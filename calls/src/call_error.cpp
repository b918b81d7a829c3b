#include <tarv/calls/call_error.h>

#include <array>
#include <cstddef>

namespace tarv {

std::string_view NameOf(CallReason reason) {
  static constexpr std::array<std::string_view, 15> kNames{
      "kAnswered",   "kTimedOut",   "kCancelled",      "kNotStarted", "kNeverConnected",
      "kTaskExited", "kTaskKilled", "kConnectionLost", "kTooLarge",   "kBadArguments",
      "kBadAnswer",  "kReleased",   "kCrashLoop",      "kWouldBlock", "kOutOfMemory"};
  return kNames.at(static_cast<std::size_t>(reason));
}

const std::string& CallError::GetMessage() const {
  static const std::string kNone;
  return answer_ ? answer_->message : kNone;
}

const cw::EncodableValue& CallError::GetData() const {
  static const cw::EncodableValue kNone;
  return answer_ ? answer_->data : kNone;
}

}  // namespace tarv
