// tarv::CallError: why a call ended without a value.
#ifndef TARV_CALLS_CALL_ERROR_H
#define TARV_CALLS_CALL_ERROR_H

#include <cw/encodable_value.h>

#include <cstdint>
#include <stdexcept>
#include <string>
#include <string_view>

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
};

// "kTimedOut" and so on.
std::string_view NameOf(CallReason reason);

// Codes of JSON-RPC errors that this layer gives to requests, beside vorpc::Message's.
inline constexpr std::int32_t kInvalidParams = -32602;
inline constexpr std::int32_t kRequestCancelled = -32800;

// A value. what() is one text that names the task, the method, the cause and what to do next.
class CallError : public std::runtime_error {
 public:
  CallError(CallReason reason, const std::string& text) : runtime_error(text), reason_(reason) {}
  CallError(CallReason reason, const std::string& text, std::int32_t code, std::string message,
            cw::EncodableValue data)
      : runtime_error(text),
        reason_(reason),
        code_(code),
        message_(std::move(message)),
        data_(std::move(data)) {}

  CallReason GetReason() const { return reason_; }
  // With kAnswered the task's error; after the loss of a task the connection's; otherwise 0, an
  // empty text and null.
  std::int32_t GetCode() const { return code_; }
  const std::string& GetMessage() const { return message_; }
  const cw::EncodableValue& GetData() const { return data_; }

 private:
  CallReason reason_;
  std::int32_t code_ = 0;
  std::string message_;
  cw::EncodableValue data_;
};

}  // namespace tarv

#endif  // TARV_CALLS_CALL_ERROR_H
