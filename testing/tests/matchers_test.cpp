// Each matcher's text when it fails: what is wanted, what there was, and the transcript.
#include <gmock/gmock.h>
#include <gtest/gtest-spi.h>
#include <tarv/testing/failure.h>
#include <tarv/testing/loopback.h>
#include <tarv/testing/matchers.h>

#include <chrono>
#include <csignal>
#include <string>

#include "word_count.h"

namespace {

using namespace tarv::testing;  // all of them are tested here
using ::testing::Field;
using ::testing::Gt;
using ::testing::HasSubstr;
using ::testing::Not;
using word_count::kCount;
using word_count::kWait;
using word_count::Totals;
using namespace std::chrono_literals;

// What EXPECT_THAT says.
template <class Subject, class Wanted>
std::string FailureOf(const Subject& subject, const Wanted& wanted) {
  ::testing::TestPartResultArray failures;
  {
    const ::testing::ScopedFakeTestPartResultReporter reporter(
        ::testing::ScopedFakeTestPartResultReporter::INTERCEPT_ONLY_CURRENT_THREAD, &failures);
    EXPECT_THAT(subject, wanted);
  }
  return failures.size() == 1 ? failures.GetTestPartResult(0).message() : "it fits";
}

class Matchers : public ::testing::Test {
 protected:
  Loopback link{LoopbackOptions().TaskName("counting")};
  word_count::WordCount task{link.GetServer(), link.GetLoop()};

  ObservedCall<Totals, word_count::Step> CallCount() {
    auto call = link.Call(kCount, {{"a b"}});
    link.Pump();
    return call;
  }
};

constexpr const char* kTranscript =
    ", in this conversation:\n"
    "-> connect\n"
    "<- connected\n"
    "-> request 1 'count' {\"texts\": [\"a b\"]}\n"
    "<- notification '$/progress' {\"token\": 1, \"value\": {\"done\": 0, \"of\": 1}}\n"
    "<- result 1 {\"each\": int32[2], \"total\": 2L}\n";

TEST_F(Matchers, AnswersShowsBothValues) {
  const auto call = CallCount();
  EXPECT_THAT(call, Answers(Totals{2, {2}}));
  EXPECT_EQ(FailureOf(call, Answers(Totals{3, {3}})),
            std::string("Value of: subject\nExpected: answers {\"each\": int32[3], \"total\": 3L}\n"
                        "  Actual: the call of 'count', which ended with {\"each\": int32[2], "
                        "\"total\": 2L}") +
                kTranscript);
}

TEST_F(Matchers, AnswersTakesAMatcherOfTheValue) {
  const auto call = CallCount();
  EXPECT_THAT(call, Answers(Field("total", &Totals::total, Gt(1))));
  EXPECT_EQ(FailureOf(call, Answers(Field("total", &Totals::total, Gt(2)))),
            std::string("Value of: subject\nExpected: answers with a value that is an object whose "
                        "field `total` is > 2\n"
                        "  Actual: the call of 'count', which ended with {\"each\": int32[2], "
                        "\"total\": 2L}, whose field `total` is 2 (of type long)") +
                kTranscript);
}

TEST_F(Matchers, AnswersShowsAnErrorInPlaceOfTheValue) {
  const auto call = link.Call(kWait);
  link.Pump();
  link.KillTask(SIGKILL);
  link.Pump();
  const std::string end =
      "  Actual: the call of 'wait', which ended with kTaskKilled -32002: 'wait' of the task "
      "'counting' was sent and has no answer: the task 'counting' (process 1) was killed by signal "
      "9 (SIGKILL) after 0 ms, in this conversation:\n"
      "-> connect\n"
      "<- connected\n"
      "-> request 1 'wait'\n"
      "-- the task was killed by signal 9 (SIGKILL)\n";
  EXPECT_EQ(FailureOf(call, Answers()), "Value of: subject\nExpected: answers\n" + end);
  EXPECT_EQ(FailureOf(call, TimedOut()),
            "Value of: subject\nExpected: ends with kTimedOut and a text that is anything\n" + end);
  EXPECT_EQ(FailureOf(call, TaskKilled(HasSubstr("SIGSEGV"))),
            "Value of: subject\nExpected: ends with kTaskKilled and a text that has substring "
            "\"SIGSEGV\"\n" +
                end);
  EXPECT_EQ(
      FailureOf(call, IsError(-32002)),
      "Value of: subject\nExpected: ends with kAnswered -32002 and a text that is anything\n" +
          end);
  EXPECT_EQ(
      FailureOf(call, Cancelled()),
      "Value of: subject\nExpected: ends with kCancelled and a text that is anything\n" + end);
  EXPECT_EQ(
      FailureOf(call, TaskExited()),
      "Value of: subject\nExpected: ends with kTaskExited and a text that is anything\n" + end);
  EXPECT_EQ(
      FailureOf(call, ConnectionLost()),
      "Value of: subject\nExpected: ends with kConnectionLost and a text that is anything\n" + end);
  EXPECT_EQ(FailureOf(call, IsOpen()), "Value of: subject\nExpected: has not ended\n" + end);
  EXPECT_EQ(FailureOf(call, EndsFor(tarv::CallReason::kReleased)),
            "Value of: subject\nExpected: ends with kReleased and a text that is anything\n" + end);
}

TEST_F(Matchers, AllShowAnOpenCall) {
  const auto call = link.Call(kWait);
  link.Pump();
  const std::string end =
      "\n  Actual: the call of 'wait', which has not ended, in this conversation:\n-> connect\n<- "
      "connected\n-> request 1 'wait'\n";
  EXPECT_THAT(call, IsOpen());
  EXPECT_EQ(FailureOf(call, TimedOut()),
            "Value of: subject\nExpected: ends with kTimedOut and a text that is anything" + end);
  EXPECT_EQ(FailureOf(call, Answers()), "Value of: subject\nExpected: answers" + end);
}

TEST_F(Matchers, IsErrorLooksAtCodeAndText) {
  const auto call = link.Call("count", 5);
  link.Pump();
  EXPECT_THAT(call, IsError(-32602));
  EXPECT_THAT(call, IsError(-32602, HasSubstr("params: expected")));
  EXPECT_THAT(FailureOf(call, IsError(-32603)),
              ::testing::StartsWith(
                  "Value of: subject\nExpected: ends with kAnswered -32603 and a text that is "
                  "anything\n  Actual: the call of 'count', which ended with "
                  "kAnswered -32602: 'count' of the task 'counting' "));
  EXPECT_THAT(FailureOf(call, IsError(-32602, "else")),
              HasSubstr("and a text that is equal to \"else\""));
}

TEST_F(Matchers, TellWhatTheyAreTheContraryOf) {
  const auto call = CallCount();
  EXPECT_THAT(FailureOf(call, Not(Answers())), HasSubstr("Expected: does not answer"));
  EXPECT_THAT(FailureOf(call, Not(Answers(Totals{2, {2}}))),
              HasSubstr("Expected: does not answer {\"each\": int32[2], \"total\": 2L}"));
  EXPECT_THAT(call, Not(TimedOut()));
  EXPECT_THAT(call, Not(IsOpen()));
  const auto open = link.Call(kWait);
  EXPECT_THAT(FailureOf(open, Not(IsOpen())), HasSubstr("Expected: has ended"));
  open.Cancel();
  link.Pump();
  EXPECT_THAT(FailureOf(open, Not(Cancelled())),
              HasSubstr("Expected: does not end with kCancelled"));
}

TEST_F(Matchers, TakeOutcomesToo) {
  const tarv::Outcome<std::int32_t> five(5);
  EXPECT_THAT(five, Answers(5));
  EXPECT_EQ(FailureOf(five, Answers(6)),
            "Value of: subject\nExpected: answers 6\n  Actual: 5 (of type tarv::Outcome<int>)");
  const tarv::Outcome<void> error(tarv::CallError(tarv::CallReason::kTimedOut, "too late"));
  EXPECT_THAT(error, TimedOut("too late"));
  EXPECT_EQ(FailureOf(error, Answers()),
            "Value of: subject\nExpected: answers\n  Actual: kTimedOut: too late (of type "
            "tarv::Outcome<void>)");
  const tarv::Outcome<void> nothing{std::monostate()};
  EXPECT_THAT(nothing, Answers());
  EXPECT_EQ(FailureOf(nothing, TimedOut()),
            "Value of: subject\nExpected: ends with kTimedOut and a text that is anything\n"
            "  Actual: no value, and no error (of type tarv::Outcome<void>)");
}

TEST_F(Matchers, FailTheTestAsGoogleTestDoes) {
  EXPECT_FATAL_FAILURE(
      {
        const tarv::Outcome<std::int32_t> five(5);
        ASSERT_THAT(five, Answers(6));
      },
      "Expected: answers 6");
}

TEST(Failure, FailsTheRunningTest) {
  EXPECT_NONFATAL_FAILURE(ReportFailure("a process is left"), "a process is left");
}

TEST(Failure, GoesToTheLatestHandler) {
  std::string heard;
  auto before = SetFailureHandler([&heard](const std::string& text) { heard = text; });
  ReportFailure("a socket is left");
  SetFailureHandler(std::move(before));
  EXPECT_EQ(heard, "a socket is left");
}

TEST(FailureDeathTest, EndsAProgramThatHasNoTestFramework) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_DEATH(details::kHandlerBeforeGoogleTest("a descriptor is left"),
               "tarv::testing: a descriptor is left");
}

}  // namespace
