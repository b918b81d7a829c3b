// Keeps what the library logs meanwhile from standard error, for who reports it otherwise.
#ifndef TARVCTL_CAPTURED_LOG_H
#define TARVCTL_CAPTURED_LOG_H

#include <iostream>
#include <sstream>
#include <string>

namespace tarvctl {

class CapturedLog {
 public:
  CapturedLog() : log_before_(std::cout.rdbuf(&log_)), errors_before_(std::cerr.rdbuf(&log_)) {}
  ~CapturedLog() {
    std::cout.rdbuf(log_before_);
    std::cerr.rdbuf(errors_before_);
  }
  CapturedLog(const CapturedLog&) = delete;
  CapturedLog& operator=(const CapturedLog&) = delete;

  // The lines logged so far.
  std::string GetText() const { return log_.str(); }

 private:
  std::stringbuf log_;
  std::streambuf* log_before_;
  std::streambuf* errors_before_;  // where the codec complains
};

}  // namespace tarvctl

#endif  // TARVCTL_CAPTURED_LOG_H
