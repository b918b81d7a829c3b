// Messages of many threads that tell whose they are and which.
#ifndef END_TO_END_NUMBERED_H
#define END_TO_END_NUMBERED_H

#include <cw/encodable_value.h>

#include <cstdint>

namespace tarv::test {

constexpr int kThreads = 8;
constexpr std::int64_t kMostOfOne = 1'000'000;

inline cw::EncodableValue Number(int thread, int number) {
  return std::int64_t{thread} * kMostOfOne + number;
}

}  // namespace tarv::test

#endif  // END_TO_END_NUMBERED_H
