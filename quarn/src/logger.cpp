#include <quarn/logger.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <ctime>
#include <iostream>
#include <locale>
#include <stdexcept>

namespace quarn::logger::details {
namespace {

constexpr std::string_view kReset = "\033[0m";
constexpr std::string_view kGrey = "\033[90m";

struct Tag {
  std::string_view text;
  std::string_view colour;
};

constexpr Tag kTags[] = {
    {"[info]", "\033[1;32m"},
    {"[warn]", "\033[1;33m"},
    {"[error]", "\033[1;31m"},
    {"[fatal]", "\033[1;31m"},
};

// Asked afresh for each escape: standard output may be redirected while the process runs.
std::string_view Gated(std::string_view escape) {
  return isatty(STDOUT_FILENO) != 0 ? escape : std::string_view();
}

const Tag* FindTag(LogLevel level) {
  const auto index = static_cast<std::uint32_t>(level);
  return index < std::size(kTags) ? &kTags[index] : nullptr;
}

// Puts errno back at the end of the scope: the message may be about to describe it.
class SavedErrno {
 public:
  SavedErrno() = default;
  ~SavedErrno() { errno = value_; }
  SavedErrno(const SavedErrno&) = delete;
  SavedErrno& operator=(const SavedErrno&) = delete;

 private:
  int value_ = errno;
};

sigset_t PipeSignal() {
  sigset_t set;
  sigemptyset(&set);
  sigaddset(&set, SIGPIPE);
  return set;
}

bool IsPipeSignalPending() {
  sigset_t pending;
  sigpending(&pending);
  return sigismember(&pending, SIGPIPE) == 1;
}

}  // namespace

PipeSignalBlock::PipeSignalBlock() {
  const sigset_t set = PipeSignal();
  sigset_t before;
  pthread_sigmask(SIG_BLOCK, &set, &before);
  was_blocked_ = sigismember(&before, SIGPIPE) == 1;
  // A signal can only have been waiting where it was blocked.
  takes_back_ = !was_blocked_ || !IsPipeSignalPending();
}

PipeSignalBlock::~PipeSignalBlock() {
  const SavedErrno saved_errno;
  const sigset_t set = PipeSignal();
  if (takes_back_) {
    constexpr timespec kNoWait{};
    sigtimedwait(&set, nullptr, &kNoWait);
  }
  if (!was_blocked_) {
    pthread_sigmask(SIG_UNBLOCK, &set, nullptr);
  }
}

// The buffer comes last: a stream that is given a locale hands it on to its buffer.
Printer::Printer(LogLevel level, std::string_view location) : stream_(nullptr), level_(level) {
  const SavedErrno saved_errno;
  stream_.imbue(std::locale::classic());
  stream_.rdbuf(std::cout.rdbuf());
  if (const Tag* tag = FindTag(level_)) {
    stream_ << Gated(tag->colour) << tag->text << Gated(kReset);
  }
  if (location.empty()) {
    return;
  }
  if (location.data() == nullptr) {
    throw std::logic_error("basic_string: construction from null is not valid");
  }
  stream_ << Gated(kGrey) << location << Gated(kReset);
}

Printer::~Printer() {
  const SavedErrno saved_errno;
  stream_ << '\n' << std::flush;
  if (stream_) {
    pipe_signal_block_.SetAllWritten();
  }
  if (level_ == LogLevel::Fatal) {
    std::abort();
  }
}

}  // namespace quarn::logger::details
