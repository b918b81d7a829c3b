#include <tarv/testing/transcript.h>

#include <cstdint>
#include <sstream>

namespace tarv::testing {
namespace {

using vorpc::Message;

// With this request a client asks to connect.
constexpr std::string_view kHandshake = "vorpc.connected";

template <class Value>
std::string TextOf(const Value& value) {
  std::ostringstream stream;
  stream << value;
  return stream.str();
}

std::string TextOfPayload(const cw::EncodableValue& value) {
  return value.IsNull() ? "" : " " + TextOf(value);
}

std::string TextOfError(const Message::Error& error) {
  return std::to_string(error.code) + ' ' + TextOf(cw::EncodableValue(error.message)) +
         TextOfPayload(error.data);
}

// The member of a notification's parameters that holds the id of a request, if it has one.
const char* IdMemberOf(const std::string& method) {
  if (method == "$/cancelRequest") {
    return "id";
  }
  return method == "$/progress" ? "token" : nullptr;
}

}  // namespace

std::string TextOfDuration(Duration duration) {
  const std::int64_t ms = std::chrono::duration_cast<std::chrono::milliseconds>(duration).count();
  constexpr std::int64_t kSecond = 1000;
  constexpr std::int64_t kMinute = 60 * kSecond;
  constexpr std::int64_t kHour = 60 * kMinute;
  if (ms < kSecond) {
    return std::to_string(ms) + " ms";
  }
  if (ms < kMinute) {
    return std::to_string(ms / kSecond) + '.' + std::to_string(ms % kSecond / 100) + " s";
  }
  if (ms < kHour) {
    return std::to_string(ms / kMinute) + " min " + std::to_string(ms % kMinute / kSecond) + " s";
  }
  return std::to_string(ms / kHour) + " h " + std::to_string(ms % kHour / kMinute) + " min";
}

void Transcript::Add(Way way, const Message& message, const std::string& remark) {
  const std::lock_guard lock(mutex_);
  AddLine((way == Way::kToTask ? "-> " : "<- ") + Describe(message) +
          (remark.empty() ? "" : " (" + remark + ")"));
}

void Transcript::Note(const std::string& text) {
  const std::lock_guard lock(mutex_);
  AddLine("-- " + text);
}

void Transcript::SetTime(Loop::Time now) {
  const std::lock_guard lock(mutex_);
  now_ = now;
  if (!last_line_) {
    last_line_ = now;
  }
}

std::string Transcript::GetText() const {
  const std::lock_guard lock(mutex_);
  return text_;
}

void Transcript::Clear() {
  const std::lock_guard lock(mutex_);
  text_.clear();
  last_line_ = now_;
}

void Transcript::AddLine(const std::string& line) {
  if (now_ && *now_ > *last_line_) {
    text_ += "-- " + TextOfDuration(*now_ - *last_line_) + " later\n";
  }
  last_line_ = now_;
  text_ += line + '\n';
}

std::string Transcript::Describe(const Message& message) {
  if (const auto* const request = message.GetRequest()) {
    return DescribeRequest(*request);
  }
  if (const auto* const response = message.GetResponse()) {
    return DescribeResponse(*response);
  }
  if (const auto* const notification = message.GetNotification()) {
    return DescribeNotification(*notification);
  }
  if (const auto* const error = message.GetError()) {
    return "error of no request " + TextOfError(*error);
  }
  return "no message";
}

std::string Transcript::DescribeRequest(const Message::Request& request) {
  const bool is_handshake = request.method == kHandshake;
  const auto [known, is_new] = numbers_.emplace(request.id.value, is_handshake ? 0 : requests_ + 1);
  if (is_handshake) {
    return "connect";
  }
  requests_ += is_new ? 1 : 0;
  return "request " + std::to_string(known->second) + " '" + request.method + '\'' +
         TextOfPayload(request.params);
}

std::string Transcript::DescribeResponse(const Message::Response& response) {
  const auto known = numbers_.find(response.id.value);
  const bool is_handshake = known != numbers_.end() && known->second == 0;
  if (const Message::Error* const error = response.GetError()) {
    return (is_handshake ? std::string("refused") : "error " + NumberOf(response.id.value)) + ' ' +
           TextOfError(*error);
  }
  return is_handshake
             ? "connected"
             : "result " + NumberOf(response.id.value) + ' ' + TextOf(*response.GetResult());
}

std::string Transcript::DescribeNotification(const Message::Notification& notification) const {
  cw::EncodableValue params = notification.params;
  const char* const member = IdMemberOf(notification.method);
  auto* const map = std::get_if<cw::EncodableMap>(&params);
  if (member != nullptr && map != nullptr) {
    cw::EncodableValue& id = (*map)[cw::EncodableValue(member)];
    const auto* const text = std::get_if<std::string>(&id);
    const auto known = text == nullptr ? numbers_.end() : numbers_.find(*text);
    if (known != numbers_.end()) {
      id = cw::EncodableValue(static_cast<std::int32_t>(known->second));
    }
  }
  return "notification '" + notification.method + '\'' + TextOfPayload(params);
}

// An id that no request here had is shown as it is.
std::string Transcript::NumberOf(const std::string& id) const {
  const auto known = numbers_.find(id);
  return known == numbers_.end() ? '\'' + id + '\'' : std::to_string(known->second);
}

}  // namespace tarv::testing
