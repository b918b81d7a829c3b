#include "progress.h"

#include <unistd.h>

#include <iostream>
#include <string>

namespace checksums {
namespace {

constexpr unsigned kBarWidth = 40;
constexpr unsigned kLineStep = 10;  // percent between plain lines

}  // namespace

Progress::Progress(std::size_t files, std::uint64_t bytes)
    : files_(files), bytes_(bytes), terminal_(isatty(STDERR_FILENO) != 0) {}

void Progress::Update(std::size_t files_done, std::uint64_t bytes_done) {
  // Files may grow while they are hashed.
  const std::uint64_t known = bytes_done < bytes_ ? bytes_done : bytes_;
  const auto percent = bytes_ == 0 ? 100U : static_cast<unsigned>(known * 100 / bytes_);
  if (terminal_) {
    DrawBar(percent, files_done);
    bar_drawn_ = true;
  } else if (percent >= shown_percent_ + kLineStep || (percent == 100 && shown_percent_ < 100)) {
    std::cerr << "checksums: " << percent << " % (" << files_done << " of " << files_
              << " files)\n";
    shown_percent_ = percent - percent % kLineStep;
  }
}

void Progress::DrawBar(unsigned percent, std::size_t files_done) const {
  const unsigned filled = percent * kBarWidth / 100;
  std::cerr << "\r[" << std::string(filled, '#') << std::string(kBarWidth - filled, ' ') << "] "
            << percent << " %  " << files_done << "/" << files_ << " files" << std::flush;
}

void Progress::Clear() {
  if (bar_drawn_) {
    std::cerr << "\r\033[K" << std::flush;
    bar_drawn_ = false;
  }
}

}  // namespace checksums
