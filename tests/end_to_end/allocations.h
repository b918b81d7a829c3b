// Counts a whole process's memory allocations, of Qt's and the kit's code too: link
// allocations.cpp, which puts itself before the C library's allocator.
#ifndef END_TO_END_ALLOCATIONS_H
#define END_TO_END_ALLOCATIONS_H

#include <cstddef>

namespace tarv::test {

// How many there have been so far.
std::size_t CountAllocations();

}  // namespace tarv::test

#endif  // END_TO_END_ALLOCATIONS_H
