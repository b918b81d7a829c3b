// The project's log: one line a call on standard output.
//
//   QUARN_LOG_ERROR() << "No chunk <" << id << ">";
//
// prints "[error] src/manager.cpp:42 No chunk <7>" and flushes it. The tag and the location are
// coloured only while standard output is a terminal. A line never throws, nor does it kill the
// process when nobody reads the pipe that it goes to; a line that cannot be written is lost.
#ifndef QUARN_LOGGER_H
#define QUARN_LOGGER_H

#include <quarn/export.h>

#include <cstdint>
#include <ostream>
#include <string_view>

namespace quarn::logger::details {

enum class LogLevel : std::int32_t { Info = 0, Warn = 1, Error = 2, Fatal = 3 };

// Keeps a SIGPIPE that writing causes from the thread: blocks the signal while it lives, and takes
// back one that has arrived by the end, unless one was waiting before. One thread.
class TARV_EXPORT PipeSignalBlock {
 public:
  PipeSignalBlock();
  ~PipeSignalBlock();
  PipeSignalBlock(const PipeSignalBlock&) = delete;
  PipeSignalBlock& operator=(const PipeSignalBlock&) = delete;

  // No write has failed, so that no signal can have arrived: spares the system call that looks.
  void SetAllWritten() { takes_back_ = false; }

 private:
  bool was_blocked_ = false;
  bool takes_back_ = true;  // what has arrived by the end
};

// One log line: begun by the constructor, ended by the destructor. Any thread; a printer takes no
// lock, so pieces of lines that two threads write at one time may interleave. Leaves errno as it
// was.
class TARV_EXPORT Printer {
 public:
  // Writes the level's tag (none for a value outside LogLevel) and, unless it is empty, `location`,
  // which carries its own blanks on both sides. Throws std::logic_error for a location that is null
  // but not of length zero.
  Printer(LogLevel level, std::string_view location);

  // Ends the line and flushes it. A Fatal line then aborts the process.
  ~Printer();

  Printer(const Printer&) = delete;
  Printer& operator=(const Printer&) = delete;

  // Where the caller writes the message; valid while the printer lives. A stream of this line's own
  // over the buffer that std::cout has: it writes numbers as the classic locale does, throws
  // nothing, and neither takes over nor changes the state and format of std::cout.
  std::ostream& GetStream() const { return stream_; }

 private:
  PipeSignalBlock pipe_signal_block_;
  mutable std::ostream stream_;
  LogLevel level_;
};

}  // namespace quarn::logger::details

#define QUARN_DETAILS_STRINGIFY(x) #x
#define QUARN_DETAILS_TO_STRING(x) QUARN_DETAILS_STRINGIFY(x)

// The place of the call, as the log shows it: " src/manager.cpp:42 ".
#define QUARN_LOCATION " " __FILE__ ":" QUARN_DETAILS_TO_STRING(__LINE__) " "

// The place of a call in a header that programs compile from wherever they have installed it.
// `path` is the header's, from the root of this repository.
#define QUARN_LOCATION_IN(path) " " path ":" QUARN_DETAILS_TO_STRING(__LINE__) " "

#define QUARN_DETAILS_LOG_AT(level, location)                                              \
  ::quarn::logger::details::Printer(::quarn::logger::details::LogLevel::level, (location)) \
      .GetStream()

#define QUARN_LOG_INFO() QUARN_DETAILS_LOG_AT(Info, QUARN_LOCATION)
#define QUARN_LOG_WARN() QUARN_DETAILS_LOG_AT(Warn, QUARN_LOCATION)
#define QUARN_LOG_ERROR() QUARN_DETAILS_LOG_AT(Error, QUARN_LOCATION)
// Ends the process with abort() once the line is written.
#define QUARN_LOG_FATAL() QUARN_DETAILS_LOG_AT(Fatal, QUARN_LOCATION)

// Lines for a location of another form, or one that the caller of the logging function passed in.
#define QUARN_LOG_WARN_AT(location) QUARN_DETAILS_LOG_AT(Warn, location)
#define QUARN_LOG_ERROR_AT(location) QUARN_DETAILS_LOG_AT(Error, location)

#endif  // QUARN_LOGGER_H
