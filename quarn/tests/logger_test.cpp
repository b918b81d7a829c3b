#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <pty.h>
#include <quarn/logger.h>
#include <termios.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <ctime>
#include <functional>
#include <iomanip>
#include <iostream>
#include <locale>
#include <memory>
#include <sstream>
#include <stdexcept>
#include <streambuf>
#include <string>
#include <string_view>
#include <thread>
#include <utility>
#include <vector>

#include "fixtures/foreign_plugin.h"
#include "support/broken_pipe.h"
#include "support/capture.h"
#include "support/log_line.h"

namespace {

using quarn::logger::details::LogLevel;
using quarn::logger::details::Printer;
using tarv::test::BrokenPipe;
using tarv::test::CaptureStdout;
using tarv::test::IsLogLine;
using tarv::test::Redirection;
using tarv::test::StdoutOf;

// A terminal that shows standard output while a Redirection to it lives.
class Terminal {
 public:
  Terminal() {
    termios raw{};
    cfmakeraw(&raw);  // leaves "\n" alone
    if (openpty(&screen_, &terminal_, nullptr, &raw, nullptr) != 0) {
      throw std::runtime_error("cannot open a pseudo-terminal");
    }
  }
  ~Terminal() {
    close(screen_);
    close(terminal_);
  }
  Terminal(const Terminal&) = delete;
  Terminal& operator=(const Terminal&) = delete;

  int GetDescriptor() const { return terminal_; }

  // What was written since the last call.
  std::string ReadScreen() const {
    std::string text;
    std::array<char, 4096> block{};
    pollfd readable{screen_, POLLIN, 0};
    while (poll(&readable, 1, 0) == 1) {
      const ssize_t got = read(screen_, block.data(), block.size());
      if (got <= 0) {
        break;
      }
      text.append(block.data(), static_cast<std::size_t>(got));
    }
    return text;
  }

 private:
  int screen_ = -1;
  int terminal_ = -1;
};

template <class Action>
std::string ScreenOf(Action&& action) {
  const Terminal terminal;
  {
    const Redirection redirection(STDOUT_FILENO, terminal.GetDescriptor());
    action();
  }
  return terminal.ReadScreen();
}

void PrintLine(LogLevel level, std::string_view location, std::string_view message) {
  Printer(level, location).GetStream() << message;
}

std::string FileLine(LogLevel level, std::string_view location = " file.cpp:1 ") {
  return StdoutOf([level, location] { PrintLine(level, location, "text"); });
}

std::string ScreenLine(LogLevel level, std::string_view location = " file.cpp:1 ") {
  return ScreenOf([level, location] { PrintLine(level, location, "text"); });
}

TEST(Logger, WritesTagLocationAndMessageInOneLine) {
  EXPECT_EQ(FileLine(LogLevel::Info), "[info] file.cpp:1 text\n");
  EXPECT_EQ(FileLine(LogLevel::Warn), "[warn] file.cpp:1 text\n");
  EXPECT_EQ(FileLine(LogLevel::Error), "[error] file.cpp:1 text\n");
}

TEST(Logger, NumbersItsLevelsFromZero) {
  EXPECT_EQ(static_cast<int>(LogLevel::Info), 0);
  EXPECT_EQ(static_cast<int>(LogLevel::Warn), 1);
  EXPECT_EQ(static_cast<int>(LogLevel::Error), 2);
  EXPECT_EQ(static_cast<int>(LogLevel::Fatal), 3);
  EXPECT_EQ(sizeof(LogLevel), 4U);
}

TEST(Logger, WritesNoEscapesToAFile) {
  for (const LogLevel level : {LogLevel::Info, LogLevel::Warn, LogLevel::Error, LogLevel{7}}) {
    EXPECT_EQ(FileLine(level).find('\033'), std::string::npos);
  }
}

TEST(Logger, WritesNoEscapesToAPipe) {
  std::array<int, 2> ends{};
  ASSERT_EQ(pipe2(ends.data(), O_CLOEXEC), 0);
  {
    const Redirection redirection(STDOUT_FILENO, ends[1]);
    PrintLine(LogLevel::Error, " file.cpp:1 ", "text");
  }
  std::array<char, 100> text{};
  const ssize_t got = read(ends[0], text.data(), text.size());
  close(ends[0]);
  close(ends[1]);
  ASSERT_GT(got, 0);
  EXPECT_EQ(std::string(text.data(), static_cast<std::size_t>(got)), "[error] file.cpp:1 text\n");
}

TEST(Logger, ColoursTagAndLocationOnATerminal) {
  EXPECT_EQ(ScreenLine(LogLevel::Info), "\033[1;32m[info]\033[0m\033[90m file.cpp:1 \033[0mtext\n");
  EXPECT_EQ(ScreenLine(LogLevel::Warn), "\033[1;33m[warn]\033[0m\033[90m file.cpp:1 \033[0mtext\n");
  EXPECT_EQ(ScreenLine(LogLevel::Error),
            "\033[1;31m[error]\033[0m\033[90m file.cpp:1 \033[0mtext\n");
}

TEST(Logger, ColoursOnlyTheLocationOfAnUnknownLevelOnATerminal) {
  EXPECT_EQ(ScreenLine(LogLevel{7}), "\033[90m file.cpp:1 \033[0mtext\n");
}

TEST(Logger, ColoursOnlyTheTagOfALineWithoutLocationOnATerminal) {
  EXPECT_EQ(ScreenLine(LogLevel::Info, ""), "\033[1;32m[info]\033[0mtext\n");
}

TEST(Logger, AsksForATerminalAfreshForEveryLine) {
  EXPECT_EQ(FileLine(LogLevel::Info, ""), "[info]text\n");
  EXPECT_EQ(ScreenLine(LogLevel::Info, ""), "\033[1;32m[info]\033[0mtext\n");
  EXPECT_EQ(FileLine(LogLevel::Info, ""), "[info]text\n");
}

// Passes everything on to a buffer, and calls a function after each piece with the piece.
class WatchedBuffer : public std::streambuf {
 public:
  WatchedBuffer(std::streambuf* target, std::function<void(std::string_view)> after_piece)
      : target_(target), after_piece_(std::move(after_piece)) {}

 private:
  std::streamsize xsputn(const char* text, std::streamsize size) override {
    const std::streamsize written = target_->sputn(text, size);
    target_->pubsync();
    after_piece_(std::string_view(text, static_cast<std::size_t>(size)));
    return written;
  }
  int overflow(int c) override { return target_->sputc(static_cast<char>(c)); }
  int sync() override { return target_->pubsync(); }

  std::streambuf* target_;
  std::function<void(std::string_view)> after_piece_;
};

TEST(Logger, AsksForATerminalAfreshForEveryEscape) {
  const Terminal terminal;
  std::streambuf* const usual = std::cout.rdbuf();
  const std::string in_file = StdoutOf([&terminal, usual] {
    // The first part of the line goes to the file, the middle to a terminal, the end to the file.
    std::unique_ptr<Redirection> redirection;
    WatchedBuffer buffer(usual, [&](std::string_view piece) {
      if (piece == "[info]") {
        redirection = std::make_unique<Redirection>(STDOUT_FILENO, terminal.GetDescriptor());
      } else if (piece == " file.cpp:1 ") {
        redirection.reset();
      }
    });
    std::cout.rdbuf(&buffer);
    PrintLine(LogLevel::Info, " file.cpp:1 ", "text");
    std::cout.rdbuf(usual);
  });
  EXPECT_EQ(in_file, "[info]text\n");
  EXPECT_EQ(terminal.ReadScreen(), "\033[0m\033[90m file.cpp:1 ");
}

TEST(Logger, PutsTheMessageRightBehindTheTagWhenThereIsNoLocation) {
  EXPECT_EQ(FileLine(LogLevel::Warn, ""), "[warn]text\n");
  EXPECT_EQ(FileLine(LogLevel::Warn, std::string_view()), "[warn]text\n");
}

TEST(Logger, PrintsUnknownLevelsWithoutATagAndGoesOn) {
  EXPECT_EQ(FileLine(LogLevel{7}), " file.cpp:1 text\n");
  EXPECT_EQ(FileLine(LogLevel{4}), " file.cpp:1 text\n");
  EXPECT_EQ(FileLine(LogLevel{-1}), " file.cpp:1 text\n");
}

TEST(Logger, WritesTagAndLocationWhenTheLineBegins) {
  const CaptureStdout output;
  std::string begun;
  {
    const Printer printer(LogLevel::Info, " file.cpp:1 ");
    begun = output.GetText();
  }
  EXPECT_EQ(begun, "[info] file.cpp:1 ");
  EXPECT_EQ(output.GetText(), "[info] file.cpp:1 \n");
}

TEST(Logger, TakesAMessageInAnyNumberOfPieces) {
  EXPECT_EQ(StdoutOf([] {
              Printer(LogLevel::Info, " a.cpp:1 ").GetStream()
                  << "one " << 2 << std::string(" three ") << std::string_view("four") << '\n';
            }),
            "[info] a.cpp:1 one 2 three four\n\n");
}

TEST(Logger, FlushesEachLine) {
  Redirection::FlushStandardStreams();
  const CaptureStdout output;
  PrintLine(LogLevel::Info, "", "text");
  // Reads the file without a flush of the test's own.
  std::array<char, 100> text{};
  const ssize_t got = pread(STDOUT_FILENO, text.data(), text.size(), 0);
  ASSERT_GT(got, 0);
  EXPECT_EQ(std::string(text.data(), static_cast<std::size_t>(got)), "[info]text\n");
}

// Puts state and format of std::cout back at the end of the scope.
class SavedFormat {
 public:
  SavedFormat() { saved_.copyfmt(std::cout); }
  ~SavedFormat() {
    std::cout.clear();
    std::cout.copyfmt(saved_);
  }
  SavedFormat(const SavedFormat&) = delete;
  SavedFormat& operator=(const SavedFormat&) = delete;

 private:
  std::ios saved_{nullptr};
};

// What `action` writes while standard output goes to a device that takes nothing.
template <class Action>
void WithFullOutput(Action&& action) {
  const int full = open("/dev/full", O_WRONLY | O_CLOEXEC);
  ASSERT_GE(full, 0);
  {
    const Redirection redirection(STDOUT_FILENO, full);
    action();
  }
  close(full);
}

TEST(Logger, LosesALineThatCannotBeWrittenWithoutAnException) {
  const SavedFormat saved;
  std::cout.exceptions(std::ios_base::badbit | std::ios_base::failbit);
  WithFullOutput([] {
    EXPECT_NO_THROW(PrintLine(LogLevel::Error, " file.cpp:1 ", "lost"));
    EXPECT_NO_THROW(PrintLine(LogLevel::Error, " file.cpp:1 ", std::string(100'000, 'x')));
    EXPECT_TRUE(std::cout.good());
  });
}

TEST(Logger, WritesTheLineAfterALostOne) {
  WithFullOutput([] { PrintLine(LogLevel::Error, " file.cpp:1 ", "lost"); });
  EXPECT_EQ(FileLine(LogLevel::Error), "[error] file.cpp:1 text\n");
}

TEST(Logger, WritesWhileStandardOutputsOwnStreamHasFailed) {
  const SavedFormat saved;
  std::cout.setstate(std::ios_base::badbit);
  std::string line;
  {
    const CaptureStdout output;
    PrintLine(LogLevel::Warn, "", "text");
    line = output.GetText();
  }
  EXPECT_EQ(line, "[warn]text\n");
  EXPECT_TRUE(std::cout.bad());
}

// As a German writes numbers.
class PointsBetweenThousands : public std::numpunct<char> {
  char do_thousands_sep() const override { return '.'; }
  std::string do_grouping() const override { return "\3"; }
};

TEST(Logger, TakesOverNoFormatOfStandardOutputAndLeavesItsOwn) {
  const SavedFormat saved;
  const std::locale german(std::locale::classic(), new PointsBetweenThousands);
  const std::locale before = std::locale::global(german);
  std::cout.imbue(german);
  std::cout << std::hex << std::setfill('#') << std::setprecision(2) << std::setw(20);
  const std::string log =
      StdoutOf([] { QUARN_LOG_ERROR_AT(" a.cpp:1 ") << 1234567 << ' ' << 0.125; });
  EXPECT_EQ(std::cout.width(), 20);
  EXPECT_EQ(log, "[error] a.cpp:1 1234567 0.125\n");
  std::locale::global(before);
}

TEST(Logger, LeavesNoFormatToTheNextLine) {
  StdoutOf([] { QUARN_LOG_INFO() << std::hex << std::setw(30); });
  EXPECT_EQ(StdoutOf([] { QUARN_LOG_ERROR_AT(" a.cpp:1 ") << 255; }), "[error] a.cpp:1 255\n");
}

TEST(Logger, WritesToTheBufferThatStandardOutputHasAtTheMoment) {
  const std::ostringstream replacement;
  std::streambuf* const usual = std::cout.rdbuf(replacement.rdbuf());
  PrintLine(LogLevel::Info, "", "text");
  std::cout.rdbuf(usual);
  EXPECT_EQ(replacement.str(), "[info]text\n");
  std::cout.rdbuf(nullptr);
  PrintLine(LogLevel::Info, "", "to nobody");
  std::cout.rdbuf(usual);
  std::cout.clear();
}

bool IsBlocked(int signal) {
  sigset_t mask;
  pthread_sigmask(SIG_SETMASK, nullptr, &mask);
  return sigismember(&mask, signal) == 1;
}

bool IsPending(int signal) {
  sigset_t pending;
  sigpending(&pending);
  return sigismember(&pending, signal) == 1;
}

TEST(Logger, OutlivesAPipeThatNobodyReads) {
  signal(SIGPIPE, SIG_DFL);
  const BrokenPipe pipe(STDOUT_FILENO);
  PrintLine(LogLevel::Error, " file.cpp:1 ", "lost");
  PrintLine(LogLevel::Error, " file.cpp:1 ", std::string(100'000, 'x'));
  EXPECT_FALSE(IsBlocked(SIGPIPE));
  EXPECT_FALSE(IsPending(SIGPIPE));
}

TEST(Logger, LeavesTheSignalsOfABrokenPipeAsTheThreadHasThem) {
  const BrokenPipe pipe(STDOUT_FILENO);
  sigset_t set;
  sigemptyset(&set);
  sigaddset(&set, SIGPIPE);
  pthread_sigmask(SIG_BLOCK, &set, nullptr);
  PrintLine(LogLevel::Info, "", "text");
  EXPECT_TRUE(IsBlocked(SIGPIPE));
  EXPECT_FALSE(IsPending(SIGPIPE));
  raise(SIGPIPE);
  PrintLine(LogLevel::Info, "", "text");
  EXPECT_TRUE(IsPending(SIGPIPE));
  const timespec no_wait{};
  EXPECT_EQ(sigtimedwait(&set, nullptr, &no_wait), SIGPIPE);
  pthread_sigmask(SIG_UNBLOCK, &set, nullptr);
}

TEST(Logger, RejectsANullLocationOfSomeLength) {
  std::string error;
  const std::string log = StdoutOf([&error] {
    try {
      const Printer printer(LogLevel::Info, std::string_view(nullptr, 5));
    } catch (const std::logic_error& caught) {
      error = caught.what();
    }
  });
  EXPECT_EQ(error, "basic_string: construction from null is not valid");
  EXPECT_EQ(log, "[info]");
}

TEST(Logger, MacrosNameLevelAndPlaceOfTheCall) {
  EXPECT_THAT(StdoutOf([] { QUARN_LOG_INFO() << "text"; }), IsLogLine("info", "text"));
  EXPECT_THAT(StdoutOf([] { QUARN_LOG_WARN() << "text"; }), IsLogLine("warn", "text"));
  EXPECT_THAT(StdoutOf([] { QUARN_LOG_ERROR() << "text"; }), IsLogLine("error", "text"));
  const std::string line = std::to_string(__LINE__ + 1);
  EXPECT_EQ(StdoutOf([] { QUARN_LOG_ERROR() << "text"; }),
            "[error] quarn/tests/logger_test.cpp:" + line + " text\n");
}

TEST(Logger, NamesPublicHeadersByTheirPathFromTheRootWhoeverCompilesThem) {
  const auto library = quarn::Library::Create(QUARN_SAMPLE_LIBRARY);
  ASSERT_NE(library, nullptr);
  std::istringstream log(StdoutOf([&library] { LogFromPublicHeaders(library); }));
  int lines = 0;
  for (std::string line; std::getline(log, line); ++lines) {
    EXPECT_THAT(line + "\n", testing::MatchesRegex("\\[[a-z]+\\] quarn/include/quarn/"
                                                   "(strings|library_api)\\.h:[0-9]+ .*\n"));
  }
  EXPECT_EQ(lines, 5);
}

TEST(Logger, PrintsTheLocationThatACallerPassesIn) {
  EXPECT_EQ(StdoutOf([] { QUARN_LOG_ERROR_AT(" far/away.cpp:3 ") << "text"; }),
            "[error] far/away.cpp:3 text\n");
}

TEST(Logger, LeavesErrnoAsItWas) {
  int in_message = 0;
  int behind_line = 0;
  StdoutOf([&in_message, &behind_line] {
    errno = ENOENT;
    {
      const Printer printer(LogLevel::Info, " file.cpp:1 ");
      in_message = std::exchange(errno, ERANGE);
    }
    behind_line = errno;
  });
  EXPECT_EQ(in_message, ENOENT);
  EXPECT_EQ(behind_line, ERANGE);
}

TEST(Logger, LosesNoLineOfSeveralThreads) {
  constexpr int kThreads = 4;
  constexpr int kLines = 200;
  const std::string log = StdoutOf([] {
    std::vector<std::thread> threads;
    threads.reserve(kThreads);
    for (int i = 0; i < kThreads; ++i) {
      threads.emplace_back([] {
        for (int line = 0; line < kLines; ++line) {
          PrintLine(LogLevel::Info, "", "text");
        }
      });
    }
    for (auto& thread : threads) {
      thread.join();
    }
  });
  EXPECT_EQ(std::count(log.begin(), log.end(), '\n'), kThreads * kLines);
  EXPECT_EQ(log.size(), std::string("[info]text\n").size() * kThreads * kLines);
}

// Standard output becomes the child's standard error, which is what a death test reads.
void ShowStdoutAsStderr() { dup2(STDERR_FILENO, STDOUT_FILENO); }

TEST(LoggerDeathTest, AbortsAfterTheWholeFatalLine) {
  EXPECT_EXIT(
      {
        ShowStdoutAsStderr();
        PrintLine(LogLevel::Fatal, " file.cpp:1 ", "last words");
      },
      testing::KilledBySignal(SIGABRT), "^\\[fatal\\] file\\.cpp:1 last words\n");
}

TEST(LoggerDeathTest, ColoursTheFatalTagRedOnATerminal) {
  const Terminal terminal;
  EXPECT_EXIT(
      {
        dup2(terminal.GetDescriptor(), STDOUT_FILENO);
        QUARN_LOG_FATAL() << "last words";
      },
      testing::KilledBySignal(SIGABRT), "");
  EXPECT_THAT(terminal.ReadScreen(),
              testing::StartsWith("\033[1;31m[fatal]\033[0m\033[90m quarn/tests/logger_test.cpp:"));
}

TEST(LoggerDeathTest, OtherLevelsLetTheProcessGoOn) {
  EXPECT_EXIT(
      {
        ShowStdoutAsStderr();
        for (const int level : {0, 1, 2, 4, 7}) {
          PrintLine(LogLevel{level}, "", "line");
        }
        std::_Exit(5);
      },
      testing::ExitedWithCode(5), "^\\[info\\]line\n\\[warn\\]line\n\\[error\\]line\nline\nline\n");
}

}  // namespace
