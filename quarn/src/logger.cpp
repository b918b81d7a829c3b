#include <quarn/logger.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <iostream>
#include <string>

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

// Asked afresh for each escape: standard output may be redirected while the process runs. Leaves
// errno alone: the message may be about to describe it.
std::string_view Gated(std::string_view escape) {
  const int saved_errno = errno;
  const bool is_terminal = isatty(STDOUT_FILENO) != 0;
  errno = saved_errno;
  return is_terminal ? escape : std::string_view();
}

const Tag* FindTag(LogLevel level) {
  const auto index = static_cast<std::uint32_t>(level);
  return index < std::size(kTags) ? &kTags[index] : nullptr;
}

// A log that cannot be written must not bring down what it tells of, even when the application has
// asked standard output to throw.
template <class Write>
void IgnoringStreamErrors(Write&& write) {
  try {
    write();
  } catch (const std::ios_base::failure&) {
    // There is nowhere left to report it to.
  }
}

}  // namespace

Printer::Printer(LogLevel level, std::string_view location) : stream_(&std::cout), level_(level) {
  IgnoringStreamErrors([this, location] {
    if (const Tag* tag = FindTag(level_)) {
      *stream_ << Gated(tag->colour) << tag->text << Gated(kReset);
    }
    if (!location.empty()) {
      // The copy is what rejects a null location.
      *stream_ << Gated(kGrey) << std::string(location.data(), location.size()) << Gated(kReset);
    }
  });
}

Printer::~Printer() {
  IgnoringStreamErrors([this] { *stream_ << '\n' << std::flush; });
  if (level_ == LogLevel::Fatal) {
    std::abort();
  }
}

}  // namespace quarn::logger::details
