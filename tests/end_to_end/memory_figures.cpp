#include "memory_figures.h"

#include <cw/encodable_value.h>
#include <malloc.h>
#include <sys/resource.h>

#include <cstdint>
#include <fstream>
#include <stdexcept>
#include <string>
#include <vector>

namespace tarv::test {

std::size_t CountFaults() {
  rusage usage{};
  if (::getrusage(RUSAGE_SELF, &usage) != 0) {
    throw std::runtime_error("no usage");
  }
  return static_cast<std::size_t>(usage.ru_minflt);
}

std::size_t CountHeld() {
  const auto info = ::mallinfo2();
  return info.uordblks + info.hblkhd;
}

std::size_t PeakMemory() {
  constexpr std::size_t kKiB = 1024;
  std::ifstream status("/proc/self/status");
  for (std::string line; std::getline(status, line);) {
    if (line.rfind("VmHWM:", 0) == 0) {
      return kKiB * std::stoul(line.substr(6));
    }
  }
  throw std::runtime_error("no peak");
}

std::size_t ResetPeakMemory() {
  std::ofstream("/proc/self/clear_refs") << 5 << std::flush;
  return PeakMemory();
}

std::size_t CountFaultsOfValues(std::size_t size, std::size_t rounds) {
  const std::size_t before = CountFaults();
  for (std::size_t i = 0; i < rounds; ++i) {
    const cw::EncodableValue value(std::vector<std::uint8_t>(size, 'x'));
    const cw::EncodableValue copy = value;  // NOLINT(performance-unnecessary-copy-initialization)
    if (copy != value) {
      throw std::runtime_error("no copy");
    }
  }
  return CountFaults() - before;
}

}  // namespace tarv::test
