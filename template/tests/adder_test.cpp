// What the task answers: in this process, with a clock of the test's own, and in its own process.
#include "../adder.h"

#include <gmock/gmock.h>
#include <tarv/testing/loopback.h>
#include <tarv/testing/matchers.h>
#include <tarv/testing/real_task.h>

namespace {

using my_app::kAdd;
using tarv::testing::Answers;
using tarv::testing::IsError;
using tarv::testing::Loopback;
using tarv::testing::RealTask;
using tarv::testing::TaskKilled;

TEST(Adder, AddsNumbers) {
  Loopback link;
  const my_app::Adder adder(link.GetServer(), link.GetLoop());
  const auto sum = link.Call(kAdd, {20, 22});
  const auto nothing = link.Call(kAdd, {});
  link.Pump();
  EXPECT_THAT(sum, Answers(42));
  EXPECT_THAT(nothing, IsError(tarv::kInvalidParams, testing::HasSubstr("expected numbers")));
}

TEST(Adder, EndsItsCallsWhenItIsKilled) {
  Loopback link;
  const my_app::Adder adder(link.GetServer(), link.GetLoop());
  const auto sum = link.Call(kAdd, {20, 22});
  link.KillTask(9);
  link.Pump();
  EXPECT_THAT(sum, TaskKilled());
}

TEST(Adder, AddsNumbersInItsOwnProcess) {
  RealTask task(MY_APP_TASK);
  const auto sum = task.Call(kAdd, {20, 22});
  task.Pump();
  EXPECT_THAT(sum, Answers(42));
  EXPECT_THAT(task.Finish(), testing::IsEmpty());
}

}  // namespace
