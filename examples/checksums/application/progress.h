// Shows how far the work is, on standard error.
#ifndef CHECKSUMS_PROGRESS_H
#define CHECKSUMS_PROGRESS_H

#include <cstddef>
#include <cstdint>

namespace checksums {

// On a terminal a bar that redraws itself; elsewhere a plain line at each tenth of the way.
class Progress {
 public:
  Progress(std::size_t files, std::uint64_t bytes);

  void Update(std::size_t files_done, std::uint64_t bytes_done);

  // Removes the bar, so that the next line starts clean.
  void Clear();

 private:
  unsigned Percent(std::size_t files_done, std::uint64_t bytes_done) const;
  void DrawBar(unsigned percent, std::size_t files_done) const;

  const std::size_t files_;
  const std::uint64_t bytes_;
  const bool terminal_;
  unsigned shown_percent_ = 0;
  bool bar_drawn_ = false;
};

}  // namespace checksums

#endif  // CHECKSUMS_PROGRESS_H
