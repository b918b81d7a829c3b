#include "output.h"

#include <fcntl.h>
#include <unistd.h>

#include <QtCore/QCoreApplication>
#include <array>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>

#include "exit_status.h"

namespace tarvctl {
namespace {

constexpr std::size_t kMostWaiting = std::size_t{1} << 16U;

// How a terminal is told each Colour.
constexpr std::array<const char*, 7> kCodes{"", "1", "2", "31", "32", "33", "36"};

bool MayColour(int descriptor) {
  const char* const forbidden = std::getenv("NO_COLOR");
  return ::isatty(descriptor) != 0 && (forbidden == nullptr || *forbidden == '\0');
}

// False when nobody reads any more.
bool WriteAll(int descriptor, std::string_view text) {
  while (!text.empty()) {
    const ssize_t written = ::write(descriptor, text.data(), text.size());
    if (written < 0 && errno != EINTR) {
      return false;
    }
    text.remove_prefix(written < 0 ? 0 : static_cast<std::size_t>(written));
  }
  return true;
}

std::string Painted(bool has_colour, Colour colour, std::string_view text) {
  if (!has_colour || colour == Colour::kPlain) {
    return std::string(text);
  }
  return "\x1b[" + std::string(kCodes.at(static_cast<std::size_t>(colour))) + 'm' +
         std::string(text) + "\x1b[0m";
}

}  // namespace

Output::Output()
    : results_(::fcntl(STDOUT_FILENO, F_DUPFD_CLOEXEC, STDERR_FILENO + 1)),
      is_terminal_(::isatty(STDOUT_FILENO) != 0),
      has_colour_(MayColour(STDOUT_FILENO)),
      news_have_colour_(MayColour(STDERR_FILENO)) {
  ::dup2(STDERR_FILENO, STDOUT_FILENO);
  std::signal(SIGPIPE, SIG_IGN);
}

Output::~Output() { ::close(results_); }

void Output::Print(std::string_view text) {
  waiting_ += text;
  if (is_terminal_ || waiting_.size() >= kMostWaiting) {
    Flush();
  }
}

void Output::PrintLine(std::string_view line) {
  Print(line);
  Print("\n");
}

void Output::Flush() {
  const bool written = is_broken_ || WriteAll(results_, waiting_);
  const int why = errno;
  waiting_.clear();
  if (written) {
    return;
  }
  is_broken_ = true;
  if (why != EPIPE) {
    Complain("the results cannot be written: " + std::string(std::strerror(why)));
  }
  QCoreApplication::exit(kBrokenPipe);
}

void Output::Tell(std::string_view line) const {
  WriteAll(STDERR_FILENO, std::string(line) + '\n');
}

void Output::Complain(std::string_view text) const {
  Tell(PaintNews(Colour::kRed, "tarvctl: ") + std::string(text));
}

std::string Output::Paint(Colour colour, std::string_view text) const {
  return Painted(has_colour_, colour, text);
}

std::string Output::PaintNews(Colour colour, std::string_view text) const {
  return Painted(news_have_colour_, colour, text);
}

}  // namespace tarvctl
