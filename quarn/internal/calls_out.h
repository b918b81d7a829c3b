// Marks the places where a callback of the user's is about to run.
//
// In the debug build's programs a checker stands behind it (tests/support/lock_order.cpp), which
// ends the process when this thread holds a lock. In a release build nothing is left of it.
#ifndef QUARN_INTERNAL_CALLS_OUT_H
#define QUARN_INTERNAL_CALLS_OUT_H

#ifndef NDEBUG
// Null in a program without the checker.
extern "C" __attribute__((weak)) void tarv_expect_no_lock(const char* callback);
#endif

namespace quarn::details {

// `callback` says whose callback it is.
inline void CallsOut([[maybe_unused]] const char* callback) {
#ifndef NDEBUG
  if (&tarv_expect_no_lock != nullptr) {
    tarv_expect_no_lock(callback);
  }
#endif
}

}  // namespace quarn::details

#endif  // QUARN_INTERNAL_CALLS_OUT_H
