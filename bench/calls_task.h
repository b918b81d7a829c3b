// What the task "bench_calls" can be asked.
#ifndef BENCH_CALLS_TASK_H
#define BENCH_CALLS_TASK_H

#include <tarv/calls/method.h>
#include <tarv/calls/value.h>

#include <cstdint>
#include <string>
#include <vector>

namespace tarv::bench {

// A payload such as plug-ins send: a few members of several kinds.
struct Parcel {
  std::int32_t number = 0;
  std::string name;
  std::vector<std::int32_t> list;
};
TARV_VALUE(Parcel, number, name, list)

inline constexpr Method<Parcel(Parcel)> kTyped{"typed"};
inline constexpr char kPlain[] = "plain";

}  // namespace tarv::bench

#endif  // BENCH_CALLS_TASK_H
