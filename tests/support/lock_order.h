// What the program's threads hold: a checker for programs of the debug build, in place of the
// C library's locks. See lock_order.cpp.
#ifndef TARV_TESTS_SUPPORT_LOCK_ORDER_H
#define TARV_TESTS_SUPPORT_LOCK_ORDER_H

#include <cstddef>

// Both null in programs that are built without the checker, as those with a sanitizer are.
extern "C" {
// The number of locks that the calling thread holds.
__attribute__((weak)) std::size_t tarv_locks_held();
// The number of orders, of one lock before another, that have been seen so far and are remembered.
__attribute__((weak)) std::size_t tarv_lock_orders();
}

#endif  // TARV_TESTS_SUPPORT_LOCK_ORDER_H
