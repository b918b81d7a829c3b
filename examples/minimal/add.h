// What the task "minimal" can be asked: shared by it and the application.
#ifndef MINIMAL_ADD_H
#define MINIMAL_ADD_H

#include <tarv/calls/method.h>
#include <tarv/calls/value.h>

#include <cstdint>

struct Numbers {
  std::int32_t a = 0, b = 0;
};
TARV_VALUE(Numbers, a, b)

inline constexpr tarv::Method<std::int32_t(Numbers)> kAdd{"add", "adds two numbers"};

#endif  // MINIMAL_ADD_H
