// What a process's memory costs it, as the process itself can tell.
#ifndef END_TO_END_MEMORY_FIGURES_H
#define END_TO_END_MEMORY_FIGURES_H

#include <cstddef>

namespace tarv::test {

// Pages that the system has had to provide to this process so far.
std::size_t CountFaults();

// Bytes that this process has taken from the allocator and not given back.
std::size_t CountHeld();

// The most memory that this process has had at a time, in bytes.
std::size_t PeakMemory();
// Begins to count anew. The memory that it has now, which is the most for the moment.
std::size_t ResetPeakMemory();

// The pages that making a payload of `size` bytes, a copy of it, and letting both go costs, `rounds`
// times: what every program pays that has the values of a request and its answer.
std::size_t CountFaultsOfValues(std::size_t size, std::size_t rounds);

}  // namespace tarv::test

#endif  // END_TO_END_MEMORY_FIGURES_H
