#include "call_texts.h"

#include <map>
#include <string_view>
#include <utility>

namespace tarv::details {

namespace {

using vorpc::Message;

// The codes that tell how a connection ended.
constexpr std::int32_t kExited = -32001;
constexpr std::int32_t kKilled = -32002;
constexpr std::int32_t kLost = -32003;
constexpr std::int32_t kTooLong = -32004;
constexpr std::int32_t kQueueFull = -32005;

// A client gives this to its callbacks when the transport has no error of its own.
constexpr std::string_view kNoReason = "Unknown runtime error";

// What an error shows of the methods under way. There may be thousands.
constexpr std::size_t kShownMethods = 5;

// kAnswered for a code that says nothing of the connection.
CallReason ReasonOfCode(std::int32_t code) {
  switch (code) {
    case kExited:
      return CallReason::kTaskExited;
    case kKilled:
      return CallReason::kTaskKilled;
    case kLost:
    case kQueueFull:
      return CallReason::kConnectionLost;
    case kTooLong:
      return CallReason::kTooLarge;
    default:
      return CallReason::kAnswered;
  }
}

CallReason ReasonOfConnectError(const Message::Error& error) {
  if (error.code != Message::kInternalError) {
    return CallReason::kNeverConnected;
  }
  return error.message == kNoReason ? CallReason::kConnectionLost : CallReason::kNotStarted;
}

std::string Join(const std::vector<std::string>& names) {
  std::string text;
  for (const std::string& name : names) {
    text.append(text.empty() ? "" : ", ").append(name);
  }
  return text;
}

// Says what to do about an error that a task answered with.
std::string AdviceFor(std::int32_t code) {
  switch (code) {
    case kInvalidParams:
      return ": are application and task built from the same contract?";
    case Message::kUnknownMethod:
      return ": is a handler registered, does its Service still live, and is this the task's "
             "latest "
             "build?";
    default:
      return "";
  }
}

}  // namespace

Loss LossOf(const std::optional<Message::Error>& error, bool connecting) {
  if (!error) {
    return {CallReason::kConnectionLost, 0, "the connection was closed by this application"};
  }
  CallReason reason = ReasonOfCode(error->code);
  if (reason == CallReason::kAnswered) {
    reason = connecting ? ReasonOfConnectError(*error) : CallReason::kConnectionLost;
  }
  const bool refused = reason == CallReason::kNeverConnected;
  return {reason, error->code,
          refused ? "it refuses the handshake: " + error->message : error->message};
}

Loss LossOfMissingClient() {
  return {CallReason::kNotStarted, 0,
          "there is no client: the manager refused to make one, and the log says why"};
}

Loss LossOfManager(EndedManager manager) {
  return {
      CallReason::kReleased, 0,
      manager == EndedManager::kOwn
          ? "the ManagerWrapper that made its client was destroyed, and ended the task: keep it "
            "until the calls have ended, and destroy it after Caller and client"
          : "another ManagerWrapper of this process was destroyed, which ends the tasks of all: "
            "keep every one of them as long as any task is called",
      manager == EndedManager::kOwn};
}

Loss LossOfSilentTask(const std::string& task, Duration waited) {
  return {CallReason::kNeverConnected, 0,
          TextOfTask(task) + " runs but has not answered the handshake for " + TextOf(waited) +
              ": does it call server->Run()?"};
}

std::string TextOfMethods(const std::vector<std::string>& methods) {
  std::map<std::string_view, std::size_t> counts;
  for (const std::string& method : methods) {
    ++counts[method];
  }
  std::vector<std::string> texts;
  for (const auto& [method, count] : counts) {
    if (texts.size() == kShownMethods) {
      texts.emplace_back("...");
      break;
    }
    texts.push_back("'" + std::string(method) + "'" +
                    (count > 1 ? " (" + std::to_string(count) + ")" : ""));
  }
  return Join(texts);
}

std::string TextOf(Duration duration) {
  using std::chrono::milliseconds;
  const auto rounded = std::chrono::duration_cast<milliseconds>(duration).count();
  return rounded % 1000 == 0 ? std::to_string(rounded / 1000) + " s"
                             : std::to_string(rounded) + " ms";
}

std::string TextOfTask(const std::string& task) {
  return task.empty() ? "the task" : "the task '" + task + "'";
}

std::string CallNames::Subject() const { return "'" + method + "' of " + TextOfTask(task); }

CallError CallNames::Lost(const Loss& loss, bool sent) const {
  return {loss.reason,
          Subject() + (sent ? " was sent and has no answer: " : " was not sent: ") + loss.text,
          loss.code,
          loss.text,
          {}};
}

CallError CallNames::TimedOut(Duration timeout, bool sent) const {
  return {CallReason::kTimedOut,
          Subject() + (sent ? " was not answered within " : " was not sent within ") +
              TextOf(timeout) +
              (sent ? ": is its handler busy, or does it keep its request? "
                      "CallOptions().Timeout() gives it longer"
                    : ": the task has not connected; does it call server->Run()?")};
}

CallError CallNames::Cancelled() const {
  return {CallReason::kCancelled, Subject() + " was cancelled by Call::Cancel"};
}

CallError CallNames::Released() const {
  return {CallReason::kReleased,
          Subject() +
              " was open when its Caller was destroyed: keep the Caller until its calls "
              "have ended"};
}

CallError CallNames::WouldBlock() const {
  return {CallReason::kWouldBlock, "Wait() for " + Subject() +
                                       " on the thread of its loop would never end: use Then() or "
                                       "co_await there"};
}

CallError CallNames::BadArguments(const std::string& misfit) const {
  return {CallReason::kBadArguments, Subject() + " was not sent: " + misfit};
}

CallError CallNames::NotSent(const std::string& why) const {
  return {CallReason::kBadArguments, Subject() + " could not be sent: " + why};
}

CallError CallNames::BadAnswer(const std::string& misfit) const {
  return {CallReason::kBadAnswer,
          Subject() + " was answered with something else than its contract says: " + misfit +
              ": are application and task built from the same contract?"};
}

CallError CallNames::Answered(const Message::Error& error) const {
  return {CallReason::kAnswered,
          Subject() + " answered with the error " + std::to_string(error.code) + ": " +
              error.message + AdviceFor(error.code),
          error.code, error.message, error.data};
}

CallError CallNames::Unknown(const Message::Error& error,
                             const std::vector<std::string>& known) const {
  if (known.empty()) {
    return Answered(error);
  }
  return {CallReason::kAnswered, Subject() + " is unknown to it: it answers " + Join(known),
          error.code, error.message, error.data};
}

}  // namespace tarv::details
