// What the tests of load share.
#ifndef TORTURE_LOAD_LOAD_H
#define TORTURE_LOAD_LOAD_H

#include <cstddef>
#include <cstdlib>
#include <iostream>

#include "end_to_end/memory_figures.h"

namespace tarv::test {

// Long forms are of the full size; the short ones, for every run of the tests, of a part of it.
inline std::size_t Sized(std::size_t full, std::size_t part) {
  return std::getenv("TARV_TORTURE") != nullptr ? full : part;
}

// Sanitizers keep what is given back for a while, so memory says nothing.
#ifdef TARV_SANITIZED
constexpr bool kMemoryCounts = false;
#else
constexpr bool kMemoryCounts = true;
#endif

constexpr std::size_t kMiB = std::size_t{1} << 20;

// The most memory that this process has had since the object was made, beyond what it had then.
class PeakGrowth {
 public:
  // Says it, too, for whoever wants figures.
  std::size_t Get(const char* of_what) const {
    const std::size_t peak = PeakMemory();
    const std::size_t growth = peak > before_ ? peak - before_ : 0;
    std::cout << "memory for " << of_what << ": " << growth / 1024 << " KiB" << std::endl;
    return kMemoryCounts ? growth : 0;
  }

 private:
  const std::size_t before_ = ResetPeakMemory();
};

}  // namespace tarv::test

#endif  // TORTURE_LOAD_LOAD_H
