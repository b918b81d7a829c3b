// What a piece of a test writes to standard error.
#ifndef CW_TESTS_SUPPORT_STDERR_CAPTURE_H
#define CW_TESTS_SUPPORT_STDERR_CAPTURE_H

#include <unistd.h>

#include <cstdio>
#include <stdexcept>
#include <string>

namespace cw::test_support {

// Redirects descriptor 2 into a file of its own while it lives.
class StderrCapture {
 public:
  StderrCapture() : file_(std::tmpfile()), original_(dup(STDERR_FILENO)) {
    if (file_ == nullptr || original_ < 0 || dup2(fileno(file_), STDERR_FILENO) < 0) {
      throw std::runtime_error("cannot redirect standard error");
    }
  }
  ~StderrCapture() {
    dup2(original_, STDERR_FILENO);
    close(original_);
    std::fclose(file_);
  }
  StderrCapture(const StderrCapture&) = delete;
  StderrCapture& operator=(const StderrCapture&) = delete;

  // Everything written so far.
  std::string GetText() const {
    std::string text;
    std::fseek(file_, 0, SEEK_SET);
    char block[4096];
    for (std::size_t count = 0; (count = std::fread(block, 1, sizeof(block), file_)) > 0;) {
      text.append(block, count);
    }
    return text;
  }

 private:
  std::FILE* file_;
  int original_;
};

}  // namespace cw::test_support

#endif  // CW_TESTS_SUPPORT_STDERR_CAPTURE_H
