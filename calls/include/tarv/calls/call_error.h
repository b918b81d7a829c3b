// tarv::CallError: why a call ended without a value.
#ifndef TARV_CALLS_CALL_ERROR_H
#define TARV_CALLS_CALL_ERROR_H

#include <cw/encodable_value.h>

#include <cstdint>
#include <memory>
#include <stdexcept>
#include <string>
#include <string_view>
#include <utility>

namespace tarv {

// docs/calls.md says for each what leads to it and what to do about it.
enum class CallReason {
  kAnswered,        // the task answered with an error: code, message and data are the task's
  kTimedOut,        // no answer within the call's time
  kCancelled,       // Call::Cancel
  kNotStarted,      // the task could not be started
  kNeverConnected,  // the task runs but does not answer the handshake, or refuses it
  kTaskExited,      // the task ended by itself
  kTaskKilled,      // a signal ended the task
  kConnectionLost,  // the connection to the task ended otherwise
  kTooLarge,        // a message was above the platform's bound, which ends the connection
  kBadArguments,    // a parameter that no message holds; nothing was sent
  kBadAnswer,       // the result is not of the method's type
  kReleased,        // the Caller was destroyed, or a ManagerWrapper under it
  kCrashLoop,       // the task died so often that KeptTask starts it no more
  kWouldBlock,      // Call::Wait on the thread of its loop; the call itself goes on
  kOutOfMemory,     // memory ran out for the call, its answer or its timer
};

// "kTimedOut" and so on.
std::string_view NameOf(CallReason reason);

// Codes of JSON-RPC errors that this layer gives to requests, beside vorpc::Message's.
inline constexpr std::int32_t kInvalidParams = -32602;
inline constexpr std::int32_t kRequestCancelled = -32800;

// A value; a copy takes no memory, and throws nothing. what() is one text that names the task, the
// method, the cause and what to do next. When memory runs out for that text, reason and code are
// those of the end all the same, and what() is a text that was made beforehand: it names the task.
class CallError : public std::runtime_error {
 public:
  CallError(CallReason reason, const std::string& text) : runtime_error(text), reason_(reason) {}
  CallError(CallReason reason, const std::string& text, std::int32_t code, std::string message,
            cw::EncodableValue data)
      : runtime_error(text),
        reason_(reason),
        code_(code),
        answer_(std::make_shared<const Answer>(Answer{std::move(message), std::move(data)})) {}
  // With the text of `prepared`. Takes no memory.
  CallError(CallReason reason, std::int32_t code, const CallError& prepared) noexcept
      : runtime_error(prepared), reason_(reason), code_(code) {}

  CallReason GetReason() const { return reason_; }
  // With kAnswered the task's error; after the loss of a task the connection's; otherwise 0, an
  // empty text and null. Text and data are empty, too, when memory ran out for them.
  std::int32_t GetCode() const { return code_; }
  const std::string& GetMessage() const;
  const cw::EncodableValue& GetData() const;

 private:
  struct Answer {
    std::string message;
    cw::EncodableValue data;
  };

  CallReason reason_;
  std::int32_t code_ = 0;
  std::shared_ptr<const Answer> answer_;  // null: neither message nor data
};

}  // namespace tarv

#endif  // TARV_CALLS_CALL_ERROR_H
