// What the task "calls_counter" can be asked.
#ifndef CALLS_TESTS_COST_H
#define CALLS_TESTS_COST_H

#include <tarv/calls/method.h>
#include <tarv/calls/value.h>

#include <cstdint>

namespace cost {

struct Number {
  std::int32_t n = 0;
};
TARV_VALUE(Number, n)

inline constexpr tarv::Method<Number(Number)> kTyped{"typed"};
inline constexpr tarv::Method<std::int64_t()> kCountAllocations{"count allocations"};

}  // namespace cost

#endif  // CALLS_TESTS_COST_H
