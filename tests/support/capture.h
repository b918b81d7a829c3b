// What a piece of code writes to standard output or standard error, as a test reads it back.
//
//   tarv::test::CaptureStdout output;
//   DoSomething();
//   EXPECT_EQ(output.GetText(), "[info] ...");
//
// or, in one expression, EXPECT_EQ(tarv::test::StdoutOf([] { DoSomething(); }), "").
//
// The redirection is made at the descriptor, so it catches std::cout, printf, write() and child
// processes alike, and what the code sees there is a file and no terminal. Redirecting changes the
// whole process: one capture of a descriptor at a time, made and ended on the test's thread. Put
// assertions about stdout's text where the capture has ended or failed messages go into it.
#ifndef SUPPORT_CAPTURE_H
#define SUPPORT_CAPTURE_H

#include <sys/mman.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdio>
#include <iostream>
#include <string>
#include <system_error>

namespace tarv::test {

namespace details {

inline int CheckedDescriptor(int descriptor, const char* what) {
  if (descriptor < 0) {
    throw std::system_error(errno, std::generic_category(), what);
  }
  return descriptor;
}

}  // namespace details

// Makes `descriptor` (1 or 2) refer to what another descriptor refers to, for the length of a
// scope. Standard streams are flushed at both ends, so that nothing lands on the wrong side.
class Redirection {
 public:
  // `target` stays the caller's. Throws std::system_error when the descriptors cannot be had.
  Redirection(int descriptor, int target)
      : descriptor_(descriptor),
        saved_(details::CheckedDescriptor(dup(descriptor), "cannot save the descriptor")) {
    FlushStandardStreams();
    details::CheckedDescriptor(dup2(target, descriptor_), "cannot redirect the descriptor");
  }
  ~Redirection() {
    FlushStandardStreams();
    dup2(saved_, descriptor_);
    close(saved_);
  }
  Redirection(const Redirection&) = delete;
  Redirection& operator=(const Redirection&) = delete;

  static void FlushStandardStreams() {
    std::cout.flush();
    std::cerr.flush();
    std::fflush(nullptr);
  }

 private:
  int descriptor_;
  int saved_;
};

// Collects what is written to descriptor `kDescriptor` while it lives.
template <int kDescriptor>
class Capture {
 public:
  Capture() = default;
  ~Capture() { close(file_); }
  Capture(const Capture&) = delete;
  Capture& operator=(const Capture&) = delete;

  // Everything written so far.
  std::string GetText() const {
    Redirection::FlushStandardStreams();
    std::string text;
    std::array<char, 4096> block{};
    while (true) {
      const ssize_t got = pread(file_, block.data(), block.size(), static_cast<off_t>(text.size()));
      if (got <= 0) {
        return text;
      }
      text.append(block.data(), static_cast<std::size_t>(got));
    }
  }

 private:
  int file_ = details::CheckedDescriptor(memfd_create("captured output", MFD_CLOEXEC),
                                         "cannot make a file for captured output");
  Redirection redirection_{kDescriptor, file_};
};

using CaptureStdout = Capture<STDOUT_FILENO>;
using CaptureStderr = Capture<STDERR_FILENO>;

// What `action()` writes to standard output.
template <class Action>
std::string StdoutOf(Action&& action) {
  const CaptureStdout output;
  action();
  return output.GetText();
}

// What `action()` writes to standard error.
template <class Action>
std::string StderrOf(Action&& action) {
  const CaptureStderr output;
  action();
  return output.GetText();
}

}  // namespace tarv::test

#endif  // SUPPORT_CAPTURE_H
