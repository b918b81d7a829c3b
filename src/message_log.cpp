#include "message_log.h"

#include <quarn/escaped.h>
#include <unistd.h>
#include <vorpc/message.h>

#include <cerrno>
#include <cstdlib>
#include <iomanip>
#include <sstream>
#include <utility>

namespace tarv::details {
namespace {

using Milliseconds = std::chrono::duration<double, std::milli>;

// Lines count from the library's first, so that they are short.
std::chrono::duration<double> SinceTheFirst() {
  static const auto first = std::chrono::steady_clock::now();
  return std::chrono::steady_clock::now() - first;
}

// A message of another protocol is shown as it is, up to this many bytes.
constexpr std::size_t kShownOfText = 120;

}  // namespace

bool MessageLog::IsOn() {
  static const bool is_on = [] {
    const char* const value = std::getenv("TARV_LOG_MESSAGES");
    return value != nullptr && std::string_view(value) == "1";
  }();
  return is_on;
}

std::unique_ptr<MessageLog> MessageLog::Create(const std::string& task) {
  return IsOn() ? std::unique_ptr<MessageLog>(new MessageLog(task)) : nullptr;
}

void MessageLog::OnSent(std::string_view text) {
  Write(program_invocation_short_name, task_, text);
}

void MessageLog::OnReceived(std::string_view text) {
  Write(task_, program_invocation_short_name, text);
}

// One write a line: those of several threads and processes do not mix.
void MessageLog::Write(const std::string& from, const std::string& to, std::string_view text) {
  std::ostringstream line;
  const vorpc::Message message = vorpc::Message::FromBase64(std::string(text));
  line << std::fixed << std::setprecision(3) << SinceTheFirst().count() << ' ' << from << " → "
       << to << ' ' << Describe(message, text) << '\n';
  const std::string whole = line.str();
  static_cast<void>(!::write(STDERR_FILENO, whole.data(), whole.size()));
}

// The method and the time of the request with this id, which has its answer now.
std::string MessageLog::TakeRequest(const std::string& id) {
  const std::lock_guard lock(mutex_);
  const auto request = requests_.extract(id);
  if (request.empty()) {
    return {};
  }
  std::ostringstream text;
  text << quarn::Escaped{request.mapped().method} << ' ' << std::fixed << std::setprecision(1)
       << Milliseconds(Clock::now() - request.mapped().sent).count() << " ms ";
  return text.str();
}

std::string MessageLog::Describe(const vorpc::Message& message, std::string_view text) {
  std::ostringstream line;
  if (const auto* const request = message.GetRequest()) {
    const std::lock_guard lock(mutex_);
    requests_.insert_or_assign(request->id.value, Request{request->method, Clock::now()});
    line << quarn::Escaped{request->id.value} << ' ' << quarn::Escaped{request->method} << '('
         << request->params << ')';
  } else if (const auto* const note = message.GetNotification()) {
    line << quarn::Escaped{note->method} << '(' << note->params << ')';
  } else if (const auto* const response = message.GetResponse()) {
    line << quarn::Escaped{response->id.value} << ' ' << TakeRequest(response->id.value);
    if (response->IsError()) {
      line << *response->GetError();
    } else {
      line << *response->GetResult();
    }
  } else {
    line << quarn::Escaped{text.substr(0, kShownOfText)};
  }
  return line.str();
}

}  // namespace tarv::details
