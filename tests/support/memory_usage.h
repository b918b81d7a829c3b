// Counts what a thread takes and gives back: link tarv_memory_usage, which replaces operator new.
#ifndef SUPPORT_MEMORY_USAGE_H
#define SUPPORT_MEMORY_USAGE_H

#include <cstddef>
#include <limits>

namespace tarv::test {

// In bytes as they were asked for. A block counts for the threads that take it and give it back.
struct MemoryUsage {
  std::size_t held = 0;
  std::size_t peak = 0;         // the most that was held; whoever measures sets it back
  std::size_t allocations = 0;  // how often memory was taken
  std::size_t limit = std::numeric_limits<std::size_t>::max();  // a larger block is refused
  // After so many blocks that are given out one is refused, and with `goes_on` each later one.
  std::size_t until_refusal = std::numeric_limits<std::size_t>::max();
  bool goes_on = false;
  std::size_t refusals = 0;  // how often a block was refused
};

// The calling thread's.
MemoryUsage& GetMemoryUsage();

}  // namespace tarv::test

#endif  // SUPPORT_MEMORY_USAGE_H
