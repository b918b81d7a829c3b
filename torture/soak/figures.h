// What a process has at a moment: memory, descriptors, threads, children.
#ifndef TORTURE_SOAK_FIGURES_H
#define TORTURE_SOAK_FIGURES_H

#include <tarv/calls/value.h>

#include <cstdint>
#include <vector>

namespace soak {

struct Figures {
  std::int64_t private_kib = 0;  // memory that no other process shares
  std::int64_t held = 0;         // bytes in small blocks that have not been given back
  std::int64_t descriptors = 0;
  std::int64_t threads = 0;
  std::int64_t children = 0;
};
TARV_VALUE(Figures, private_kib, held, descriptors, threads, children)

// Called at the beginning of a process. Blocks as large as the texts that channels keep for the next
// one, which are large or small as it comes, do not count as held.
void LeaveOutLargeBlocks();

// Of this process, after it has given back what memory it can.
Figures MeasureSelf();

// The children of this process, dead or alive.
std::vector<int> Children();

}  // namespace soak

#endif  // TORTURE_SOAK_FIGURES_H
