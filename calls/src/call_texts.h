// The errors of calls, in words: task, method, cause and next step.
#ifndef TARV_CALLS_SRC_CALL_TEXTS_H
#define TARV_CALLS_SRC_CALL_TEXTS_H

#include <tarv/calls/call_error.h>
#include <tarv/calls/call_options.h>
#include <tarv/task_client.h>
#include <vorpc/message.h>

#include <cstddef>
#include <optional>
#include <string>
#include <vector>

namespace tarv::details {

// Why there is no connection to the task, for all of its calls.
struct Loss {
  CallReason reason;
  std::int32_t code;
  std::string text;
  bool is_final = false;  // the manager is gone that would start the task again
};

// The meaning of a client's error, while connecting or after. None: the connection was closed.
Loss LossOf(const std::optional<vorpc::Message::Error>& error, bool connecting);
Loss LossOfMissingClient();
Loss LossOfManager(EndedManager manager);
Loss LossOfSilentTask(const std::string& task, Duration waited);

// The methods of the calls that were under way when a task was lost: "'count' (2), 'ping'".
std::string TextOfMethods(const std::vector<std::string>& methods);
// "30 s", "250 ms".
std::string TextOf(Duration duration);
// "the task 'words'", or "the task" when its name is unknown.
std::string TextOfTask(const std::string& task);

// One call, for the errors that are about it.
struct CallNames {
  const std::string& method;
  const std::string& task;

  CallError Lost(const Loss& loss, bool sent) const;
  CallError TimedOut(Duration timeout, bool sent) const;
  CallError Cancelled() const;
  CallError Released() const;
  CallError WouldBlock() const;
  CallError BadArguments(const std::string& misfit) const;
  CallError NotSent(const std::string& why) const;
  CallError BadAnswer(const std::string& misfit) const;
  CallError Answered(const vorpc::Message::Error& error) const;
  // For a method that the task does not know: the names of those that it does.
  CallError Unknown(const vorpc::Message::Error& error,
                    const std::vector<std::string>& known) const;

 private:
  std::string Subject() const;
};

}  // namespace tarv::details

#endif  // TARV_CALLS_SRC_CALL_TEXTS_H
