// Running events out of which exceptions come.
#ifndef TORTURE_THREADS_EVENTS_H
#define TORTURE_THREADS_EVENTS_H

#include <gtest/gtest.h>

#include <functional>
#include <stdexcept>

#include "deed.h"
#include "end_to_end/application.h"

namespace tarv::test {

// For tests whose callbacks throw.
class RunsEvents {
 protected:
  // Runs events until the condition holds; counts the exceptions that come out.
  bool RunUntil(const std::function<bool()>& condition) {
    for (;;) {
      try {
        return WaitUntil(condition);
      } catch (const std::runtime_error& error) {
        EXPECT_STREQ(error.what(), kThrown);
        ++thrown_;
      }
    }
  }

  int thrown_ = 0;
};

}  // namespace tarv::test

#endif  // TORTURE_THREADS_EVENTS_H
