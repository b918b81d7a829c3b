// One test for both worlds: the task in this process, and in one of its own.
#include <gmock/gmock.h>
#include <tarv/testing/loopback.h>
#include <tarv/testing/matchers.h>
#include <tarv/testing/real_task.h>

#include <chrono>
#include <csignal>
#include <memory>
#include <string>
#include <utility>

#include "word_count.h"

namespace {

using tarv::CallOptions;
using tarv::testing::Answers;
using tarv::testing::Cancelled;
using tarv::testing::IsError;
using tarv::testing::Loopback;
using tarv::testing::LoopbackOptions;
using tarv::testing::RealTask;
using tarv::testing::RealTaskOptions;
using tarv::testing::TaskKilled;
using tarv::testing::TimedOut;
using tarv::testing::World;
using ::testing::HasSubstr;
using word_count::kCount;
using word_count::kWait;
using word_count::Totals;
using namespace std::chrono_literals;

// A Loopback with its task.
class LoopbackWorld final {
 public:
  Loopback link{LoopbackOptions().TaskName("word_count")};
  word_count::WordCount task{link.GetServer(), link.GetLoop()};
};

std::shared_ptr<World> MakeLoopback() {
  const auto world = std::make_shared<LoopbackWorld>();
  return {world, &world->link};
}

std::shared_ptr<World> MakeRealTask() {
  return std::make_shared<RealTask>(TASK_FOLDER "/word_count",
                                    RealTaskOptions().Patience(60s).ConnectTimeout(60s));
}

class Worlds : public ::testing::TestWithParam<std::shared_ptr<World> (*)()> {
 protected:
  const std::shared_ptr<World> world_ = GetParam()();
};

TEST_P(Worlds, CountTheSame) {
  const auto call = world_->Call(kCount, {{"a b", "c"}});
  const auto wrong = world_->Call("count", 5);
  world_->Pump();
  EXPECT_THAT(call, Answers(Totals{3, {2, 1}}));
  EXPECT_EQ(call.GetSteps().size(), 1U);
  EXPECT_THAT(wrong, IsError(-32602, HasSubstr("params: expected")));
  EXPECT_EQ(world_->GetTranscript(),
            "-> connect\n"
            "<- connected\n"
            "-> request 1 'count' {\"texts\": [\"a b\", \"c\"]}\n"
            "-> request 2 'count' 5\n"
            "<- notification '$/progress' {\"token\": 1, \"value\": {\"done\": 0, \"of\": 2}}\n"
            "<- result 1 {\"each\": int32[2, 1], \"total\": 3L}\n"
            "<- error 2 -32602 \"params: expected a map, got int32 5\"\n");
}

TEST_P(Worlds, EndCallsAlike) {
  const auto late = world_->Call(kWait, CallOptions().Timeout(1s));
  const auto cancelled = world_->Call(kWait);
  cancelled.Cancel();
  world_->Pump();
  world_->Advance(1s);
  EXPECT_THAT(late,
              TimedOut(HasSubstr("'wait' of the task 'word_count' was not answered within 1 s")));
  EXPECT_THAT(cancelled, Cancelled());
}

TEST_P(Worlds, LoseTheirTaskAlike) {
  const auto first = world_->Call(kCount, {});
  world_->Pump();
  EXPECT_THAT(first, Answers());
  const auto call = world_->Call(kWait);
  world_->KillTask(SIGKILL);
  world_->Pump();
  EXPECT_THAT(call,
              TaskKilled(::testing::MatchesRegex(
                  "'wait' of the task 'word_count' was (not sent|sent and has no answer): the "
                  "task 'word_count' .process [0-9]+. was killed by signal 9 .SIGKILL. after "
                  "[0-9.]+ m?s")));
}

INSTANTIATE_TEST_SUITE_P(Testing, Worlds, ::testing::Values(&MakeLoopback, &MakeRealTask),
                         [](const auto& world) {
                           return world.index == 0 ? "InOneProcess" : "InTwoProcesses";
                         });

}  // namespace
