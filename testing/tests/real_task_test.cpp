#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest-spi.h>
#include <tarv/calls/kept_task.h>
#include <tarv/testing/matchers.h>
#include <tarv/testing/real_task.h>
#include <unistd.h>

#include <chrono>
#include <csignal>
#include <cstdlib>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "word_count.h"

namespace {

using tarv::CallOptions;
using tarv::testing::Answers;
using tarv::testing::EndsFor;
using tarv::testing::IsOpen;
using tarv::testing::RealTask;
using tarv::testing::RealTaskOptions;
using tarv::testing::TaskExited;
using tarv::testing::TaskKilled;
using tarv::testing::TimedOut;
using ::testing::AllOf;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using word_count::kComplain;
using word_count::kCount;
using word_count::kExit;
using word_count::kWait;
using word_count::Totals;
using namespace std::chrono_literals;

// Enough for a loaded machine.
const auto kPatient = RealTaskOptions().Patience(60s).ConnectTimeout(60s);
const std::string kWordCount = TASK_FOLDER "/word_count";
const auto kLong = CallOptions().Timeout(60s);

TEST(RealTask, AnswersFromAProcessOfItsOwn) {
  RealTask task(kWordCount, kPatient);
  EXPECT_GT(task.GetProcess(), 0);
  const auto call = task.Call(kCount, {{"a b"}}, kLong);
  EXPECT_THAT(call, IsOpen());
  task.Pump();
  EXPECT_THAT(call, Answers(Totals{2, {2}}));
  EXPECT_THAT(task.Finish(), IsEmpty());
  ASSERT_TRUE(task.WaitForExit());
  EXPECT_EQ(task.WaitForExit()->signal, SIGTERM);
  EXPECT_EQ(kill(task.GetProcess(), 0), -1) << "it has not been reaped";
}

TEST(RealTask, TellsTheConversationAsALoopbackDoes) {
  RealTask task(kWordCount, kPatient);
  const auto call = task.Call(kCount, {{"a b"}}, kLong);
  task.Pump();
  EXPECT_EQ(task.GetTranscript(),
            "-> connect\n"
            "<- connected\n"
            "-> request 1 'count' {\"texts\": [\"a b\"]}\n"
            "<- notification '$/progress' {\"token\": 1, \"value\": {\"done\": 0, \"of\": 1}}\n"
            "<- result 1 {\"each\": int32[2], \"total\": 2L}\n");
  EXPECT_EQ(call.GetTranscript(), task.GetTranscript());
}

TEST(RealTask, TellsStandardErrorAndTheExit) {
  RealTask task(kWordCount, kPatient);
  const auto complaint = task.Call(kComplain, "there is no disk", kLong);
  task.Pump();
  EXPECT_THAT(complaint, Answers());
  const auto call = task.Call(kExit, 3, kLong);
  task.Pump();
  EXPECT_THAT(call, TaskExited(AllOf(HasSubstr("status 3"), HasSubstr("there is no disk"))));
  EXPECT_EQ(task.GetStandardError(), "there is no disk\n");
  ASSERT_TRUE(task.WaitForExit());
  EXPECT_EQ(task.WaitForExit()->status, 3);
  EXPECT_FALSE(task.WaitForExit()->signal);
  EXPECT_THAT(task.Finish(), IsEmpty());
}

TEST(RealTask, DiesOfASignal) {
  RealTask task(kWordCount, kPatient);
  const auto call = task.Call(kWait, kLong);
  EXPECT_TRUE(task.WaitUntil([&] { return !task.GetTranscript().empty(); }));
  task.KillTask(SIGKILL);
  task.Pump();
  EXPECT_THAT(call, TaskKilled(HasSubstr("signal 9 (SIGKILL)")));
  ASSERT_TRUE(task.WaitForExit());
  EXPECT_EQ(task.WaitForExit()->signal, SIGKILL);
  task.KillTask(SIGKILL);  // there is nobody any more
}

TEST(RealTask, DoesNotWaitLongerThanItsPatience) {
  RealTask task(kWordCount, RealTaskOptions().Patience(200ms).ConnectTimeout(60s));
  const auto call = task.Call(kWait, kLong);
  const auto start = std::chrono::steady_clock::now();
  task.Pump();
  EXPECT_THAT(call, IsOpen());
  EXPECT_FALSE(task.WaitUntil([] { return false; }));
  EXPECT_FALSE(task.WaitForExit());
  EXPECT_LT(std::chrono::steady_clock::now() - start, 30s);
}

TEST(RealTask, LetsTimePass) {
  RealTask task(kWordCount, kPatient);
  const auto open = task.Call(kWait, kLong);
  const auto late = task.Call(kWait, CallOptions().Timeout(100ms));
  task.Advance(300ms);
  EXPECT_THAT(late, TimedOut());
  EXPECT_THAT(open, IsOpen());
}

TEST(RealTask, TellsWhyItDidNotStart) {
  RealTask task(TASK_FOLDER "/nobody", kPatient);
  EXPECT_EQ(task.GetProcess(), 0);
  const auto call = task.Call(kWait, kLong);
  task.Pump();
  EXPECT_THAT(call, EndsFor(tarv::CallReason::kNotStarted, HasSubstr("nobody")));
  task.KillTask(SIGKILL);
  EXPECT_FALSE(task.WaitForExit());
  EXPECT_THAT(task.Finish(), IsEmpty());
}

TEST(RealTask, StandsBehindAKeptTask) {
  RealTask task(kWordCount, kPatient);
  bool is_first = true;
  {
    tarv::KeptTask kept(
        [&] { return std::exchange(is_first, false) ? task.GetClient() : task.StartAgain(); },
        "word_count");
    std::vector<std::string> ends;
    const auto end_of = [&ends](const auto& outcome) {
      ends.emplace_back(outcome ? "value" : tarv::NameOf(outcome.GetError().GetReason()));
    };
    kept.Call(kExit, 3, kLong).Then(end_of);
    EXPECT_TRUE(task.WaitUntil([&ends] { return ends.size() == 1; }));
    const int process = task.GetProcess();
    EXPECT_EQ(task.WaitForExit()->status, 3);
    kept.Call(kCount, {}, kLong).Then(end_of);
    EXPECT_TRUE(task.WaitUntil([&ends] { return ends.size() == 2; }));
    EXPECT_THAT(ends, ElementsAre("kTaskExited", "value"));
    EXPECT_NE(task.GetProcess(), process);
  }
  EXPECT_THAT(task.Finish(), IsEmpty());
}

TEST(RealTask, MeetsFaults) {
  RealTask task(kWordCount, kPatient.Faults("word_count: to kill after 2 messages; seed 1"));
  const auto call = task.Call(kWait, kLong);
  task.Pump();
  EXPECT_THAT(call, TaskKilled(HasSubstr("SIGKILL")));
  EXPECT_THAT(task.GetTranscript(), HasSubstr("-- fault: word_count: to kill after 2 messages\n"));
}

TEST(RealTask, HasItsOwnVariablesAndFolder) {
  const char* const before = std::getenv("XDG_RUNTIME_DIR");
  const std::string folder_before = before == nullptr ? "" : before;
  {
    const RealTask task(kWordCount, kPatient.Variable("COLOUR", "green"));
    EXPECT_STREQ(std::getenv("COLOUR"), "green");
    EXPECT_NE(std::getenv("XDG_RUNTIME_DIR"), folder_before);
  }
  EXPECT_EQ(std::getenv("COLOUR"), nullptr);
  const char* const after = std::getenv("XDG_RUNTIME_DIR");
  EXPECT_EQ(after == nullptr ? "" : std::string(after), folder_before);
}

TEST(RealTask, IsOneAtATime) {
  const RealTask task(kWordCount, kPatient);
  EXPECT_THROW(RealTask(kWordCount, kPatient), std::logic_error);
}

TEST(RealTask, TellsASocketThatIsLeft) {
  RealTask task(TASK_FOLDER "/litterer", RealTaskOptions().Patience(1s));
  const auto has_littered = [] {
    return access((std::string(std::getenv("XDG_RUNTIME_DIR")) + "/litter").c_str(), F_OK) == 0;
  };
  // The patience is short for what comes last; a loaded machine needs more to start the task.
  bool is_there = false;
  for (int i = 0; i < 60 && !is_there; ++i) {
    is_there = task.WaitUntil(has_littered);
  }
  ASSERT_TRUE(is_there);
  EXPECT_THAT(task.Finish(), ElementsAre("the socket litter"));
}

TEST(RealTask, TellsAProcessAndADescriptorThatAreLeft) {
  std::optional<RealTask> task(std::in_place, kWordCount, RealTaskOptions().Patience(300ms));
  const int descriptor = open("/dev/null", O_RDONLY | O_CLOEXEC);
  const pid_t child = fork();
  if (child == 0) {
    pause();
    _exit(0);
  }
  EXPECT_THAT(task->Finish(),
              ElementsAre("the process " + std::to_string(child) + " (testing_tests)",
                          "the descriptor " + std::to_string(descriptor) + ", /dev/null"));
  close(descriptor);
  kill(child, SIGKILL);
  waitpid(child, nullptr, 0);
}

TEST(RealTask, FailsATestThatDidNotAsk) {
  const int descriptor = open("/dev/null", O_RDONLY | O_CLOEXEC);
  close(descriptor);
  EXPECT_NONFATAL_FAILURE(
      {
        const RealTask task(kWordCount, RealTaskOptions().Patience(300ms));
        static_cast<void>(open("/dev/null", O_RDONLY | O_CLOEXEC));
      },
      "the test of the task 'word_count' leaves behind: the descriptor");
}

}  // namespace
