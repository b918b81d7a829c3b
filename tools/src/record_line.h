// One line of a record, as RUNTIME_MANAGER_TRACE writes it.
#ifndef TARVCTL_RECORD_LINE_H
#define TARVCTL_RECORD_LINE_H

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace tarvctl {

struct RecordLine {
  enum class Kind { kSend, kReceive, kStart, kEnd, kConnection, kFault };

  std::int64_t time = 0;  // nanoseconds of the machine's clock
  std::int64_t pid = 0;   // who wrote the line
  std::string task;
  Kind kind = Kind::kSend;
  std::string data;          // of a message in Base64; empty for one of another form
  std::string envelope;      // such a message, as JSON
  std::int64_t process = 0;  // the other one of an event, 0 when it is not told
  std::string starter;       // of kStart: the name of the starter's program
  std::string reason;        // of kEnd and kFault

  bool IsMessage() const { return kind == Kind::kSend || kind == Kind::kReceive; }
};

// Empty for what is no line of a record.
std::optional<RecordLine> ParseRecordLine(std::string_view text);
// The same line, with other data.
std::string WriteMessageLine(const RecordLine& line);

}  // namespace tarvctl

#endif  // TARVCTL_RECORD_LINE_H
