#include "call_texts.h"

#include <map>
#include <string_view>
#include <utility>

#include "answered_names.h"

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

// The error that `make` returns; when memory runs out for it, the same with the prepared text.
template <class Make>
CallError MadeOr(CallReason reason, std::int32_t code, const CallError& prepared,
                 const Make& make) noexcept {
  try {
    return make();
  } catch (const std::bad_alloc&) {
    return {reason, code, prepared};
  }
}

// An error that has a text alone.
template <class MakeText>
CallError Plain(CallReason reason, const CallError& prepared, const MakeText& make_text) noexcept {
  return MadeOr(reason, 0, prepared, [&] { return CallError(reason, make_text()); });
}

// Throws std::bad_alloc once more when memory ran out for the text.
const std::string& Get(const SharedText& text) {
  if (text == nullptr) {
    throw std::bad_alloc();
  }
  return *text;
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

Loss LossOf(const std::optional<Message::Error>& error, bool connecting) noexcept {
  if (!error) {
    return {CallReason::kConnectionLost, 0,
            MakeText([] { return "the connection was closed by this application"; })};
  }
  CallReason reason = ReasonOfCode(error->code);
  if (reason == CallReason::kAnswered) {
    reason = connecting ? ReasonOfConnectError(*error) : CallReason::kConnectionLost;
  }
  const bool refused = reason == CallReason::kNeverConnected;
  return {reason, error->code, MakeText([&] {
            return refused ? "it refuses the handshake: " + error->message : error->message;
          })};
}

Loss LossOfMissingClient() noexcept {
  return {CallReason::kNotStarted, 0, MakeText([] {
            return "there is no client: the manager refused to make one, and the log says why";
          })};
}

Loss LossOfManager(EndedManager manager) noexcept {
  const bool is_own = manager == EndedManager::kOwn;
  return {
      CallReason::kReleased, 0, MakeText([is_own] {
        return is_own
                   ? "the ManagerWrapper that made its client was destroyed, and ended the task: "
                     "keep it until the calls have ended, and destroy it after Caller and client"
                   : "another ManagerWrapper of this process was destroyed, which ends the tasks "
                     "of "
                     "all: keep every one of them as long as any task is called";
      }),
      is_own};
}

Loss LossOfSilentTask(const std::string& task, Duration waited) noexcept {
  return {CallReason::kNeverConnected, 0, MakeText([&] {
            return TextOfTask(task) + " runs but has not answered the handshake for " +
                   TextOf(waited) + ": does it call server->Run()?";
          })};
}

Loss LossOfMemory() noexcept {
  return {CallReason::kOutOfMemory, 0,
          MakeText([] { return "memory ran out while the task was started"; })};
}

CallError PreparedError(const std::string& task) {
  return {CallReason::kOutOfMemory,
          "a call of " + TextOfTask(task) +
              " has ended, and memory ran out for words about it: if its reason is kOutOfMemory it "
              "ended of that, too; free memory, and call again"};
}

CallError ErrorOf(const Loss& loss, const CallError& prepared) noexcept {
  return MadeOr(loss.reason, loss.code, prepared, [&] {
    const std::string& text = Get(loss.text);
    return CallError(loss.reason, text, loss.code, text, {});
  });
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

CallError CallNames::Lost(const Loss& loss, bool sent) const noexcept {
  return MadeOr(loss.reason, loss.code, prepared, [&] {
    const std::string& why = Get(loss.text);
    return CallError(loss.reason,
                     Subject() + (sent ? " was sent and has no answer: " : " was not sent: ") + why,
                     loss.code, why, {});
  });
}

CallError CallNames::TimedOut(Duration timeout, bool sent) const noexcept {
  return Plain(CallReason::kTimedOut, prepared, [&] {
    return Subject() + (sent ? " was not answered within " : " was not sent within ") +
           TextOf(timeout) +
           (sent ? ": is its handler busy, or does it keep its request? "
                   "CallOptions().Timeout() gives it longer"
                 : ": the task has not connected; does it call server->Run()?");
  });
}

CallError CallNames::Cancelled() const noexcept {
  return Plain(CallReason::kCancelled, prepared,
               [this] { return Subject() + " was cancelled by Call::Cancel"; });
}

CallError CallNames::Released() const noexcept {
  return Plain(CallReason::kReleased, prepared, [this] {
    return Subject() +
           " was open when its Caller was destroyed: keep the Caller until its calls "
           "have ended";
  });
}

CallError CallNames::WouldBlock() const noexcept {
  return Plain(CallReason::kWouldBlock, prepared, [this] {
    return "Wait() for " + Subject() +
           " on the thread of its loop would never end: use Then() or "
           "co_await there";
  });
}

CallError CallNames::BadArguments(const std::string& misfit) const noexcept {
  return Plain(CallReason::kBadArguments, prepared,
               [&] { return Subject() + " was not sent: " + misfit; });
}

CallError CallNames::NotSent(const char* why) const noexcept {
  return Plain(CallReason::kBadArguments, prepared,
               [&] { return Subject() + " could not be sent: " + why; });
}

CallError CallNames::BadAnswer(const Misfit& misfit) const noexcept {
  return Plain(CallReason::kBadAnswer, prepared, [&] {
    return Subject() +
           " was answered with something else than its contract says: " + misfit.GetText("result") +
           ": are application and task built from the same contract?";
  });
}

CallError CallNames::Answered(const Message::Error& error) const noexcept {
  return MadeOr(CallReason::kAnswered, error.code, prepared, [&] {
    return CallError(CallReason::kAnswered,
                     Subject() + " answered with the error " + std::to_string(error.code) + ": " +
                         error.message + AdviceFor(error.code),
                     error.code, error.message, error.data);
  });
}

CallError CallNames::Unknown(const Message::Error& error,
                             const Message::Response& response) const noexcept {
  return MadeOr(CallReason::kAnswered, error.code, prepared, [&] {
    const std::vector<std::string> known = MethodNamesIn(response);
    return known.empty() ? Answered(error)
                         : CallError(CallReason::kAnswered,
                                     Subject() + " is unknown to it: it answers " + Join(known),
                                     error.code, error.message, error.data);
  });
}

}  // namespace tarv::details
