// What the application and its task call each other by: the contract of both.
#ifndef MY_APP_NAMES_H
#define MY_APP_NAMES_H

#include <tarv/calls/method.h>

#include <cstdint>
#include <vector>

namespace my_app {

// The task, which CMakeLists.txt names so, too.
inline constexpr char kTask[] = "my_app_task";

// Takes numbers, gives their sum. Structures travel, too: see tarv/calls/value.h.
inline constexpr tarv::Method<std::int32_t(std::vector<std::int32_t>)> kAdd{"add", "adds numbers"};

}  // namespace my_app

#endif  // MY_APP_NAMES_H
