// The errors of calls, in words: task, method, cause and next step.
#ifndef TARV_CALLS_SRC_CALL_TEXTS_H
#define TARV_CALLS_SRC_CALL_TEXTS_H

#include <tarv/calls/call_error.h>
#include <tarv/calls/call_options.h>
#include <tarv/calls/misfit.h>
#include <tarv/task_client.h>
#include <vorpc/message.h>

#include <cstddef>
#include <cstdint>
#include <memory>
#include <new>
#include <optional>
#include <string>
#include <vector>

namespace tarv::details {

// Shared, so that a copy takes no memory. Null: memory ran out for the text.
using SharedText = std::shared_ptr<const std::string>;

// The text that `make` returns.
template <class Make>
SharedText MakeText(const Make& make) noexcept {
  try {
    return std::make_shared<const std::string>(make());
  } catch (const std::bad_alloc&) {
    return nullptr;
  }
}

// Why there is no connection to the task, for all of its calls. A copy takes no memory.
struct Loss {
  CallReason reason;
  std::int32_t code;
  SharedText text;
  bool is_final = false;  // the manager is gone that would start the task again
};

// The meaning of a client's error, while connecting or after. None: the connection was closed.
Loss LossOf(const std::optional<vorpc::Message::Error>& error, bool connecting) noexcept;
Loss LossOfMissingClient() noexcept;
Loss LossOfManager(EndedManager manager) noexcept;
Loss LossOfSilentTask(const std::string& task, Duration waited) noexcept;
// The task could not be started for want of memory.
Loss LossOfMemory() noexcept;

// What is told when memory runs out for any other text. Made beforehand; throws std::bad_alloc.
CallError PreparedError(const std::string& task);
// The loss alone, of no call.
CallError ErrorOf(const Loss& loss, const CallError& prepared) noexcept;

// The methods of the calls that were under way when a task was lost: "'count' (2), 'ping'".
std::string TextOfMethods(const std::vector<std::string>& methods);
// "30 s", "250 ms".
std::string TextOf(Duration duration);
// "the task 'words'", or "the task" when its name is unknown.
std::string TextOfTask(const std::string& task);

// One call, for the errors that are about it. When memory runs out for the text of one, it has the
// prepared error's.
struct CallNames {
  const std::string& method;
  const std::string& task;
  const CallError& prepared;

  CallError Lost(const Loss& loss, bool sent) const noexcept;
  CallError TimedOut(Duration timeout, bool sent) const noexcept;
  CallError Cancelled() const noexcept;
  CallError Released() const noexcept;
  CallError WouldBlock() const noexcept;
  CallError BadArguments(const std::string& misfit) const noexcept;
  CallError NotSent(const char* why) const noexcept;
  CallError BadAnswer(const Misfit& misfit) const noexcept;
  CallError Answered(const vorpc::Message::Error& error) const noexcept;
  // For a method that the task does not know; the response tells the names of those that it does.
  CallError Unknown(const vorpc::Message::Error& error,
                    const vorpc::Message::Response& response) const noexcept;

 private:
  std::string Subject() const;
};

}  // namespace tarv::details

#endif  // TARV_CALLS_SRC_CALL_TEXTS_H
