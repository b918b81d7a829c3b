// Marks the places where a callback of the user's is about to run.
//
// In programs that are built with tests a checker stands behind it (tests/support/lock_order.cpp),
// which ends the process when this thread holds a lock. It is in what is packed, too, so that the
// tests look at the very code that users run; there it costs a comparison for each callback.
#ifndef QUARN_INTERNAL_CALLS_OUT_H
#define QUARN_INTERNAL_CALLS_OUT_H

// Null in a program without the checker.
extern "C" __attribute__((weak)) void tarv_expect_no_lock(const char* callback);

namespace quarn::details {

// `callback` says whose callback it is.
inline void CallsOut(const char* callback) {
  if (&tarv_expect_no_lock != nullptr) {
    tarv_expect_no_lock(callback);
  }
}

}  // namespace quarn::details

#endif  // QUARN_INTERNAL_CALLS_OUT_H
