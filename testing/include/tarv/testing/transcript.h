// tarv::testing::Transcript: a conversation as text, one message a line, the same in every run.
//
//   -> connect
//   <- connected
//   -> request 1 'count' {"texts": ["a b"]}
//   <- result 1 {"total": 2L, "each": int32[2]}
//   -- 30 s later
//   -> notification '$/cancelRequest' {"id": 2}
#ifndef TARV_TESTING_TRANSCRIPT_H
#define TARV_TESTING_TRANSCRIPT_H

#include <tarv/calls/call_options.h>
#include <tarv/calls/loop.h>
#include <vorpc/message.h>

#include <cstddef>
#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>

namespace tarv::testing {

// Which way a message goes: from the application to its task, or from the task.
enum class Way { kToTask, kFromTask };

// "12 ms", "1.2 s", "3 min 20 s": a duration as errors and transcripts tell it.
std::string TextOfDuration(Duration duration);

// Requests are numbered from 1, in the order in which they come, whatever their ids are; the
// notifications "$/cancelRequest" and "$/progress" name them by these numbers, too. Values look as
// their output operator prints them. Any thread.
class Transcript {
 public:
  // One line for a message, with `remark` in brackets behind it unless it is empty.
  void Add(Way way, const vorpc::Message& message, const std::string& remark = {});
  // One line for something else: "-- text".
  void Note(const std::string& text);
  // Tells what time it is. When time has passed, the next line is preceded by one that says how
  // much.
  void SetTime(Loop::Time now);

  std::string GetText() const;
  void Clear();

 private:
  void AddLine(const std::string& line);
  std::string Describe(const vorpc::Message& message);
  std::string DescribeRequest(const vorpc::Message::Request& request);
  std::string DescribeResponse(const vorpc::Message::Response& response);
  std::string DescribeNotification(const vorpc::Message::Notification& notification) const;
  std::string NumberOf(const std::string& id) const;

  mutable std::mutex mutex_;  // guards what follows
  std::string text_;
  std::map<std::string, std::size_t> numbers_;  // of requests, by id; 0 for the handshake
  std::size_t requests_ = 0;
  std::optional<Loop::Time> now_;
  std::optional<Loop::Time> last_line_;
};

}  // namespace tarv::testing

#endif  // TARV_TESTING_TRANSCRIPT_H
