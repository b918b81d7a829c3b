// CW_ASSERT: a check of the caller's side of a contract that holds in every build type.
#ifndef CW_SRC_ASSERT_H
#define CW_SRC_ASSERT_H

#include <string_view>

namespace cw::internal {

// Writes what failed, where and why to standard error, and aborts the process.
[[noreturn]] void FailAssertion(std::string_view condition, std::string_view location,
                                std::string_view explanation);

}  // namespace cw::internal

#define CW_DETAILS_STRINGIFY(x) #x
#define CW_DETAILS_TO_STRING(x) CW_DETAILS_STRINGIFY(x)

// `condition` without side effects; `explanation` says what the caller did and what to do instead.
#define CW_ASSERT(condition, explanation)                                                       \
  (static_cast<bool>(condition)                                                                 \
       ? static_cast<void>(0)                                                                   \
       : ::cw::internal::FailAssertion(#condition, __FILE__ ":" CW_DETAILS_TO_STRING(__LINE__), \
                                       (explanation)))

#endif  // CW_SRC_ASSERT_H
