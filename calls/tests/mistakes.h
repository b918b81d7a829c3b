// What the task "misbehaving" can be asked.
#ifndef CALLS_TESTS_MISTAKES_H
#define CALLS_TESTS_MISTAKES_H

#include <tarv/calls/method.h>

#include <cstdint>
#include <string>

namespace mistakes {

inline constexpr tarv::Method<void()> kPing{"ping"};
inline constexpr tarv::Method<std::string(std::string)> kEcho{"echo"};
inline constexpr tarv::Method<void(std::string)> kDo{"do", "exit, crash, block, stop, ..."};
inline constexpr tarv::Method<void()> kDrop{"drop"};
inline constexpr tarv::Method<std::string(std::int32_t)> kFill{"fill", "a text of this size"};
inline constexpr tarv::Method<void()> kKeep{"keep"};
inline constexpr tarv::Method<void()> kForget{"forget"};
inline constexpr tarv::Method<std::string()> kWrongType{"wrong type"};
inline constexpr tarv::Method<void()> kUnknown{"unknown"};
inline constexpr tarv::Method<std::string(std::int32_t)> kEchoOfNumbers{"echo"};

}  // namespace mistakes

#endif  // CALLS_TESTS_MISTAKES_H
