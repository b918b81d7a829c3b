// What a process has at a moment: memory, descriptors, threads, children.
#ifndef TORTURE_SOAK_FIGURES_H
#define TORTURE_SOAK_FIGURES_H

#include <tarv/calls/value.h>

#include <cstdint>
#include <vector>

namespace soak {

struct Figures {
  std::int64_t private_kib = 0;  // memory that no other process shares
  std::int64_t descriptors = 0;
  std::int64_t threads = 0;
  std::int64_t children = 0;
};
TARV_VALUE(Figures, private_kib, descriptors, threads, children)

// Of this process, after it has given back what memory it can.
Figures MeasureSelf();

// The children of this process, dead or alive.
std::vector<int> Children();

}  // namespace soak

#endif  // TORTURE_SOAK_FIGURES_H
