#include "figures.h"

#include <malloc.h>

#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>

namespace soak {
namespace {

namespace fs = std::filesystem;

std::int64_t CountEntries(const char* folder) {
  return std::distance(fs::directory_iterator(folder), fs::directory_iterator());
}

std::int64_t ReadPrivateKib() {
  std::ifstream rollup("/proc/self/smaps_rollup");
  std::int64_t sum = 0;
  for (std::string word; rollup >> word;) {
    std::int64_t kib = 0;
    if ((word == "Private_Clean:" || word == "Private_Dirty:") && rollup >> kib) {
      sum += kib;
    }
  }
  return sum;
}

}  // namespace

void LeaveOutLargeBlocks() {
#ifdef __GLIBC__
  constexpr int kLarge = 32 * 1024;
  mallopt(M_MMAP_THRESHOLD, kLarge);
#endif
}

Figures MeasureSelf() {
  Figures figures;
#ifdef __GLIBC__
  malloc_trim(0);
  const struct mallinfo2 heap = mallinfo2();
  figures.held = static_cast<std::int64_t>(heap.uordblks);
#endif
  figures.private_kib = ReadPrivateKib();
  figures.descriptors = CountEntries("/proc/self/fd");
  figures.threads = CountEntries("/proc/self/task");
  figures.children = static_cast<std::int64_t>(Children().size());
  return figures;
}

std::vector<int> Children() {
  std::vector<int> children;
  for (const auto& thread : fs::directory_iterator("/proc/self/task")) {
    std::ifstream list(thread.path() / "children");
    for (int child = 0; list >> child;) {
      children.push_back(child);
    }
  }
  return children;
}

}  // namespace soak
