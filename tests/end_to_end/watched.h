// Counts the descriptors that a process's waits look at: link watched.cpp, which puts itself before
// the C library's poll().
#ifndef END_TO_END_WATCHED_H
#define END_TO_END_WATCHED_H

#include <cstddef>

namespace tarv::test {

// How many all waits so far have looked at, each of them counted again by each wait.
std::size_t CountWatched();

}  // namespace tarv::test

#endif  // END_TO_END_WATCHED_H
