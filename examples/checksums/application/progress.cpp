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
  const unsigned percent = Percent(files_done, bytes_done);
  if (terminal_) {
    DrawBar(percent, files_done);
    bar_drawn_ = true;
  } else if (percent >= shown_percent_ + kLineStep || (percent == 100 && shown_percent_ < 100)) {
    std::cerr << "checksums: " << percent << " % (" << files_done << " of " << files_
              << " files)\n";
    shown_percent_ = percent - percent % kLineStep;
  }
}

// All is done when the last file is, whatever its bytes say: files may grow while they are hashed.
unsigned Progress::Percent(std::size_t files_done, std::uint64_t bytes_done) const {
  if (files_done >= files_) {
    return 100;
  }
  return bytes_done < bytes_ ? static_cast<unsigned>(bytes_done * 100 / bytes_) : 99;
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
