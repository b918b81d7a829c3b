#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <quarn/internal/attempt_all.h>

#include <stdexcept>
#include <string>

#include "support/capture.h"
#include "support/log_line.h"

namespace {

using quarn::details::AttemptAll;
using quarn::details::Attempts;
using tarv::test::IsLogLine;
using tarv::test::StdoutOf;

// What `action` throws, or "" when it throws nothing.
template <class Action>
std::string ErrorOf(Action&& action) {
  try {
    action();
  } catch (const std::exception& error) {
    return error.what();
  }
  return "";
}

TEST(AttemptAll, TakesEveryStepInOrder) {
  std::string steps;
  AttemptAll([&steps] { steps += "a"; }, [&steps] { steps += "b"; }, [&steps] { steps += "c"; });
  EXPECT_EQ(steps, "abc");
}

TEST(AttemptAll, TakesTheStepsBehindOneThatThrowsAndThenThrowsTheSame) {
  std::string steps;
  const std::string log = StdoutOf([&steps] {
    EXPECT_EQ(ErrorOf([&steps] {
                AttemptAll([] { throw std::runtime_error("first"); }, [&steps] { steps += "b"; },
                           [&steps] { steps += "c"; });
              }),
              "first");
  });
  EXPECT_EQ(steps, "bc");
  EXPECT_EQ(log, "");
}

TEST(AttemptAll, LogsAnExceptionThatCannotTravelOn) {
  std::string error;
  const std::string log = StdoutOf([&error] {
    error = ErrorOf([] {
      AttemptAll([] { throw std::runtime_error("first"); },
                 [] { throw std::runtime_error("second\nline"); });
    });
  });
  EXPECT_EQ(error, "first");
  EXPECT_THAT(log, IsLogLine("error", "Dropped an exception that followed another: second\\nline"));
}

TEST(AttemptAll, LogsAThrownObjectOfAnyType) {
  const std::string log = StdoutOf([] {
    EXPECT_THROW(AttemptAll([] { throw 1; }, [] { throw 2; }), int);  // NOLINT
  });
  EXPECT_THAT(log, IsLogLine("error",
                             "Dropped an exception that followed another: it is no "
                             "std::exception"));
}

TEST(Attempts, ThrowWhatTheFirstFailedStepThrewAtTheEnd) {
  Attempts attempts;
  int taken = 0;
  for (int i = 0; i < 3; ++i) {
    attempts.Run([&taken, i] {
      ++taken;
      if (i == 1) {
        throw std::out_of_range("step 1");
      }
    });
  }
  EXPECT_EQ(taken, 3);
  EXPECT_EQ(ErrorOf([&attempts] { attempts.Finish(); }), "step 1");
}

TEST(Attempts, EndSilentlyWhenAllSucceed) {
  Attempts attempts;
  attempts.Run([] {});
  EXPECT_NO_THROW(attempts.Finish());
}

}  // namespace
