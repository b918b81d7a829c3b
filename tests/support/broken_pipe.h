// Standard output or standard error as a pipe that nobody reads.
#ifndef SUPPORT_BROKEN_PIPE_H
#define SUPPORT_BROKEN_PIPE_H

#include <fcntl.h>
#include <unistd.h>

#include <array>
#include <memory>
#include <stdexcept>

#include "support/capture.h"

namespace tarv::test {

// While it lives, what is written to `descriptor` (1 or 2) fails, and raises SIGPIPE.
class BrokenPipe {
 public:
  explicit BrokenPipe(int descriptor) {
    std::array<int, 2> ends{};
    if (pipe2(ends.data(), O_CLOEXEC) != 0) {
      throw std::runtime_error("cannot make a pipe");
    }
    close(ends[0]);
    redirection_ = std::make_unique<Redirection>(descriptor, ends[1]);
    close(ends[1]);
  }

 private:
  std::unique_ptr<Redirection> redirection_;
};

}  // namespace tarv::test

#endif  // SUPPORT_BROKEN_PIPE_H
