// Everything that can go wrong between an application and a real task, and how each call ends: the
// rows of the table in docs/calls.md.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <tarv/calls/caller.h>
#include <tarv/calls/kept_task.h>

#include <filesystem>
#include <fstream>
#include <optional>

#include "end_to_end/application.h"
#include "mistakes.h"

namespace tarv::test {
namespace {

using testing::AllOf;
using testing::HasSubstr;
using testing::MatchesRegex;
using namespace std::chrono_literals;

// Longer than any loaded machine needs; and enough for what never comes.
constexpr auto kLong = 60s;
constexpr auto kShort = 1s;

class Endings : public EndToEndTest {
 protected:
  void Begin(const std::string& mistake, Duration connect_timeout = kLong) {
    const ScopedVariable variable("MISTAKE", mistake);
    BeginTask("misbehaving", connect_timeout);
  }
  void BeginTask(const std::string& task, Duration connect_timeout = kLong) {
    caller_.emplace(manager_wrapper_->CreateIpcClient(task), Loop::OfThisThread(),
                    CallerOptions().TaskName(task).ConnectTimeout(connect_timeout));
  }
  void BeginConnected() {
    Begin("");
    const auto outcome = End(caller_->Call(mistakes::kPing, CallOptions().Timeout(kLong)));
    ASSERT_TRUE(outcome) << outcome.GetError().what();
  }

  template <class Result, class Step>
  static Outcome<Result> End(const Call<Result, Step>& call) {
    const auto ended = std::make_shared<std::optional<Outcome<Result>>>();
    call.Then([ended](Outcome<Result> outcome) { ended->emplace(std::move(outcome)); });
    if (!WaitUntil([&ended] { return ended->has_value(); })) {
      return CallError(CallReason::kWouldBlock, "the test waits for ever");
    }
    return std::move(**ended);
  }
  template <class Result, class Step>
  static void Expect(const Call<Result, Step>& call, CallReason reason,
                     const testing::Matcher<std::string>& text) {
    const Outcome<Result> outcome = End(call);
    ASSERT_FALSE(outcome);
    EXPECT_EQ(NameOf(outcome.GetError().GetReason()), NameOf(reason));
    EXPECT_THAT(std::string(outcome.GetError().what()), text);
  }
  Call<void> Ping(Duration timeout = kLong) {
    return caller_->Call(mistakes::kPing, CallOptions().Timeout(timeout));
  }
  Call<void> Do(const char* mistake, Duration timeout = kLong) {
    return caller_->Call(mistakes::kDo, mistake, CallOptions().Timeout(timeout));
  }

  std::optional<Caller> caller_;
};

TEST_F(Endings, OfATaskThatDoesNotExist) {
  BeginTask("nobody");
  Expect(Ping(), CallReason::kNotStarted,
         AllOf(HasSubstr("'ping' of the task 'nobody' was not sent: "), HasSubstr("nobody")));
}

TEST_F(Endings, OfATaskThatIsNotExecutable) {
  std::ofstream(Sign("plain")) << "no program\n";
  const ScopedVariable path("RUNTIME_MANAGER_TASK_PATH", folder_.GetPath().string());
  BeginTask("plain");
  Expect(Ping(), CallReason::kNotStarted, HasSubstr("plain"));
}

TEST_F(Endings, OfATaskThatExitsAtItsStart) {
  Begin("exits at start");
  Expect(Ping(), CallReason::kTaskExited,
         AllOf(HasSubstr("'ping' of the task 'misbehaving' was not sent: "), HasSubstr("status 3"),
               HasSubstr("there is no disk")));
}

TEST_F(Endings, OfATaskThatDiesAtItsStart) {
  Begin("dies at start");
  Expect(Ping(), CallReason::kTaskKilled, HasSubstr("KILL"));
}

TEST_F(Endings, OfATaskThatExitsDuringTheHandshake) {
  Begin("exits during the handshake");
  Expect(Ping(), CallReason::kTaskExited, HasSubstr("status 3"));
}

TEST_F(Endings, OfATaskThatNeverAccepts) {
  Begin("never accepts", kShort);
  Expect(Ping(), CallReason::kNeverConnected, HasSubstr("does it call server->Run()?"));
}

TEST_F(Endings, OfATaskThatNeverAnswersTheHandshake) {
  Begin("never answers the handshake", kShort);
  Expect(Ping(), CallReason::kNeverConnected, HasSubstr("does it call server->Run()?"));
}

TEST_F(Endings, OfATaskThatForgetsRun) {
  Begin("forgets Run", kShort);
  Expect(Ping(), CallReason::kNeverConnected,
         HasSubstr("the task 'misbehaving' runs but has not answered the handshake for 1"));
}

TEST_F(Endings, OfATaskThatSendsGarbage) {
  Begin("sends garbage", kShort);
  Expect(Ping(), CallReason::kNeverConnected, HasSubstr("has not answered the handshake"));
}

TEST_F(Endings, OfAnImpatientCallToATaskThatDoesNotConnect) {
  Begin("forgets Run");
  Expect(Ping(kShort), CallReason::kTimedOut, HasSubstr("the task has not connected"));
}

TEST_F(Endings, OfARequestThatATaskKeeps) {
  BeginConnected();
  Expect(caller_->Call(mistakes::kKeep, CallOptions().Timeout(kShort)), CallReason::kTimedOut,
         HasSubstr("is its handler busy, does it keep its request"));
}

TEST_F(Endings, OfAReplyThatAPlainHandlerDrops) {
  BeginConnected();
  Expect(caller_->Call(mistakes::kForget, CallOptions().Timeout(kShort)), CallReason::kTimedOut,
         HasSubstr("was not answered within 1 s"));
}

TEST_F(Endings, OfARequestThatAHandlerDrops) {
  BeginConnected();
  Expect(caller_->Call(mistakes::kDrop), CallReason::kAnswered,
         HasSubstr("error -32603: The request 'drop' was dropped by its handler, unanswered."));
}

TEST_F(Endings, OfAHandlerThatThrows) {
  BeginConnected();
  Expect(Do("throw"), CallReason::kAnswered, HasSubstr("error -32603: the handler is tired"));
}

TEST_F(Endings, OfAHandlerThatBlocksItsTask) {
  BeginConnected();
  Expect(Do("block", kShort), CallReason::kTimedOut, HasSubstr("is its handler busy"));
}

TEST_F(Endings, OfATaskThatIsStopped) {
  BeginConnected();
  Expect(Do("stop", kShort), CallReason::kTimedOut, HasSubstr("was not answered within 1 s"));
}

TEST_F(Endings, OfAMethodThatTheTaskDoesNotKnow) {
  BeginConnected();
  Expect(caller_->Call(mistakes::kUnknown), CallReason::kAnswered,
         HasSubstr("'unknown' of the task 'misbehaving' is unknown to it: it answers do, drop, "
                   "echo, fill, ping"));
}

TEST_F(Endings, OfParametersOfAnotherType) {
  BeginConnected();
  Expect(caller_->Call(mistakes::kEchoOfNumbers, 5), CallReason::kAnswered,
         HasSubstr("error -32602: params: expected a text, got int32 5"));
}

TEST_F(Endings, OfAResultOfAnotherType) {
  BeginConnected();
  Expect(caller_->Call(mistakes::kWrongType), CallReason::kBadAnswer,
         HasSubstr("result: expected a text, got int32 5"));
}

TEST_F(Endings, OfATaskThatExits) {
  BeginConnected();
  Expect(Do("exit"), CallReason::kTaskExited,
         AllOf(HasSubstr("'do' of the task 'misbehaving' was sent and has no answer: "),
               HasSubstr("status 3"), HasSubstr("I give up")));
}

TEST_F(Endings, OfATaskThatCrashes) {
  BeginConnected();
  Expect(Do("crash"), CallReason::kTaskKilled,
         AllOf(HasSubstr("SEGV"), HasSubstr("a wild pointer")));
}

TEST_F(Endings, OfACallAfterTheEnd) {
  BeginConnected();
  EXPECT_FALSE(End(Do("exit")));
  Expect(Ping(), CallReason::kTaskExited,
         HasSubstr("'ping' of the task 'misbehaving' was not sent"));
}

TEST_F(Endings, OfATaskThatHangsUp) {
  BeginConnected();
  Expect(Do("hang up"), CallReason::kConnectionLost, HasSubstr("has no answer: "));
}

// The bound of a message for this process, or for the task alone.
constexpr const char* kBound = "RUNTIME_MANAGER_MAX_MESSAGE";

TEST_F(Endings, OfAnAnswerThatIsTooLarge) {
  const ScopedVariable limit(kBound, "100000");
  Begin("has no bound");
  Expect(caller_->Call(mistakes::kFill, 1000000, CallOptions().Timeout(kLong)),
         CallReason::kTooLarge, HasSubstr("'fill' of the task 'misbehaving' was sent"));
}

TEST_F(Endings, OfAnAnswerThatIsTooLargeForTheTask) {
  const ScopedVariable limit(kBound, "100000");
  BeginConnected();
  Expect(caller_->Call(mistakes::kFill, 1000000), CallReason::kConnectionLost,
         HasSubstr("'fill' of the task 'misbehaving' was sent"));
}

TEST_F(Endings, OfParametersThatAreTooLarge) {
  const ScopedVariable limit(kBound, "100000");
  BeginConnected();
  Expect(caller_->Call(mistakes::kEcho, std::string(1000000, 'x')), CallReason::kTooLarge,
         HasSubstr("'echo' of the task 'misbehaving' was sent"));
}

TEST_F(Endings, OfACallWhoseManagerIsDestroyedFirst) {
  BeginConnected();
  const auto call = Do("block", kShort);
  manager_wrapper_.reset();
  Expect(call, CallReason::kTimedOut, HasSubstr("has this application destroyed its manager?"));
}

TEST_F(Endings, OfACallWhoseCallerIsDestroyed) {
  BeginConnected();
  const auto call = caller_->Call(mistakes::kKeep);
  caller_.reset();
  Expect(call, CallReason::kReleased, HasSubstr("when its Caller was destroyed"));
}

TEST_F(Endings, OfACallThatIsCancelled) {
  BeginConnected();
  const auto call = caller_->Call(mistakes::kKeep);
  call.Cancel();
  Expect(call, CallReason::kCancelled, HasSubstr("was cancelled by Call::Cancel"));
}

TEST_F(Endings, OfAGoodCall) {
  BeginConnected();
  const auto outcome = End(caller_->Call(mistakes::kEcho, "good"));
  ASSERT_TRUE(outcome);
  EXPECT_EQ(*outcome, "good");
}

TEST_F(Endings, OfATaskThatCrashesAgainAndAgain) {
  const ScopedVariable variable("MISTAKE", "exits at start");
  KeepPolicy policy;
  policy.first_pause = 1ms;
  KeptTask task(*manager_wrapper_, "misbehaving", policy);
  for (int i = 0; i < 5; ++i) {
    Expect(task.Call(mistakes::kPing), CallReason::kTaskExited, HasSubstr("status 3"));
  }
  Expect(task.Call(mistakes::kPing), CallReason::kCrashLoop,
         AllOf(HasSubstr("has died 5 times within 180 s"), HasSubstr("there is no disk")));
}

TEST_F(Endings, AreNotTheEndOfAKeptTask) {
  KeptTask task(*manager_wrapper_, "misbehaving");
  Expect(task.Call(mistakes::kDo, "crash"), CallReason::kTaskKilled, HasSubstr("SEGV"));
  EXPECT_TRUE(End(task.Call(mistakes::kPing)));
}

}  // namespace
}  // namespace tarv::test
