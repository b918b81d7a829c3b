// What the application of the soak and its tasks say to each other.
#ifndef TORTURE_SOAK_METHODS_H
#define TORTURE_SOAK_METHODS_H

#include <tarv/calls/method.h>

#include <cstdint>
#include <string>

#include "figures.h"

namespace soak {

inline constexpr tarv::Method<std::string(std::string)> kEcho{"echo"};
// A text of so many bytes.
inline constexpr tarv::Method<std::string(std::int64_t)> kFill{"fill"};
// So many steps, then their number.
inline constexpr tarv::Method<std::int64_t(std::int64_t), std::int64_t> kSteps{"steps"};
// Never answered: cancelled, timed out, or ended with the task.
inline constexpr tarv::Method<void()> kKeep{"keep"};
// Sleeps in its handler for so many milliseconds, in which nothing is read.
inline constexpr tarv::Method<void(std::int64_t)> kNap{"nap"};
// "exit 0", "exit 1", "segv", "kill", "endless line" or "hang up".
inline constexpr tarv::Method<void(std::string)> kDie{"die"};
inline constexpr tarv::Method<Figures()> kMeasure{"measure"};

// Notifications: the task hears "note" and drops it, and answers "flood" with so many "drop".
inline constexpr char kNote[] = "note";
inline constexpr char kFlood[] = "flood";
inline constexpr char kDrop[] = "drop";

}  // namespace soak

#endif  // TORTURE_SOAK_METHODS_H
