#include <cw/standard_message_codec.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <tarv/calls/caller.h>
#include <tarv/calls/description.h>
#include <tarv/calls/service.h>
#include <unistd.h>
#include <vorpc/requests.h>

#include <future>
#include <limits>

#include "link.h"
#include "plain_client.h"
#include "values.h"

namespace {

using counting::kCount;
using counting::kNext;
using counting::kPing;
using counting::kSay;
using counting::Step;
using counting::Texts;
using counting::Totals;
using tarv::CallOptions;
using tarv::CallReason;
using tarv::Outcome;
using tarv::test::Ending;
using tarv::test::Link;
using tarv::test::PlainClient;
using testing::ElementsAre;
using testing::HasSubstr;
using namespace std::chrono_literals;

// A plain server beneath, which keeps its replies until the test answers them.
class CallerTest : public testing::Test {
 protected:
  CallerTest() {
    for (const char* const method : {"count", "next", "say", "ping"}) {
      link_.server->OnRequest(method, [this](const std::string&, const cw::EncodableValue& params,
                                             std::unique_ptr<vorpc::IReply>&& reply) {
        params_.push_back(params);
        replies_.push_back(std::move(reply));
      });
    }
    link_.server->OnNotify("$/cancelRequest", [this](const vorpc::Message::Notification& cancel) {
      cancelled_.push_back(*cancel.params.Find<std::string>("id"));
    });
  }

  tarv::CallerOptions Named() const { return tarv::CallerOptions().TaskName("words"); }
  void Make() { caller_ = std::make_unique<tarv::Caller>(link_.client, link_.loop, Named()); }
  void Connect() {
    Make();
    link_.server->Run();
    link_.Pump();
  }

  Link link_;
  std::vector<cw::EncodableValue> params_;
  std::vector<std::unique_ptr<vorpc::IReply>> replies_;
  std::vector<std::string> cancelled_;
  std::unique_ptr<tarv::Caller> caller_;
};

TEST_F(CallerTest, CallsAndGivesTheTypedResult) {
  Connect();
  const Ending<Totals> ending(caller_->Call(kCount, {{"a b", "c"}}));
  link_.Pump();
  EXPECT_EQ(params_.at(0),
            cw::EncodableValue(cw::EncodableMap{{"texts", cw::EncodableList{"a b", "c"}}}));
  replies_.at(0)->SendResult(
      cw::EncodableMap{{"total", 3}, {"each", cw::EncodableList{2, std::int64_t{1}}}});
  link_.Pump();
  ASSERT_EQ(ending.Count(), 1U);
  EXPECT_EQ(ending.Get()->total, 3);
  EXPECT_THAT(ending.Get()->each, ElementsAre(2, 1));
}

TEST_F(CallerTest, TakesMethodsWithoutParameterOrResult) {
  Connect();
  const Ending<std::int32_t> next(caller_->Call(kNext));
  const Ending<void> say(caller_->Call(kSay, "hello"));
  const Ending<void> ping(caller_->Call(kPing));
  link_.Pump();
  EXPECT_THAT(params_,
              ElementsAre(cw::EncodableValue(), cw::EncodableValue("hello"), cw::EncodableValue()));
  replies_.at(0)->SendResult(7);
  replies_.at(1)->SendResult("ignored");
  replies_.at(2)->SendResult({});
  link_.Pump();
  EXPECT_EQ(*next.Get(), 7);
  EXPECT_TRUE(say.Get().HasValue());
  EXPECT_TRUE(ping.Get().HasValue());
}

TEST_F(CallerTest, KeepsCallsUntilConnectedAndSendsThemInOrder) {
  Make();
  const Ending<void> first(caller_->Call(kSay, "first"));
  const Ending<void> second(caller_->Call(kSay, "second"));
  link_.Pump();
  EXPECT_EQ(link_.CountSent("say"), 0U);
  link_.server->Run();
  link_.Pump();
  EXPECT_THAT(params_, ElementsAre(cw::EncodableValue("first"), cw::EncodableValue("second")));
}

TEST_F(CallerTest, NeverSendsWhatEndedBeforeTheConnection) {
  Make();
  const auto cancelled = caller_->Call(kSay, "cancelled");
  const Ending<void> late(caller_->Call(kSay, "late", CallOptions().Timeout(1s)));
  const Ending<void> ending(cancelled);
  cancelled.Cancel();
  link_.loop->Advance(1s);
  EXPECT_EQ(ending.GetReason(), CallReason::kCancelled);
  EXPECT_EQ(late.GetReason(), CallReason::kTimedOut);
  EXPECT_THAT(late.GetText(), HasSubstr("was not sent within 1 s: the task has not connected"));
  link_.server->Run();
  link_.Pump();
  EXPECT_TRUE(params_.empty());
  EXPECT_EQ(link_.CountSent("$/cancelRequest"), 0U);
}

TEST_F(CallerTest, TellsATasksError) {
  Connect();
  const Ending<void> ending(caller_->Call(kPing));
  link_.Pump();
  replies_.at(0)->SendError(42, "no ball", cw::EncodableMap{{"errno", 2}});
  link_.Pump();
  EXPECT_EQ(ending.GetReason(), CallReason::kAnswered);
  EXPECT_EQ(ending.Get().GetError().GetCode(), 42);
  EXPECT_EQ(ending.Get().GetError().GetMessage(), "no ball");
  EXPECT_EQ(ending.Get().GetError().GetData(), cw::EncodableValue(cw::EncodableMap{{"errno", 2}}));
  EXPECT_EQ(ending.GetText(), "'ping' of the task 'words' answered with the error 42: no ball");
  EXPECT_EQ(link_.CountSent("$/describe"), 0U) << "the names help with unknown methods alone";
}

TEST_F(CallerTest, EndsACallWithoutAnAnswerAfterItsTime) {
  Connect();
  const Ending<void> ending(caller_->Call(kPing));
  link_.loop->Advance(29999ms);
  EXPECT_EQ(ending.Count(), 0U);
  link_.loop->Advance(1ms);
  EXPECT_EQ(ending.GetReason(), CallReason::kTimedOut);
  EXPECT_THAT(ending.GetText(),
              HasSubstr("'ping' of the task 'words' was not answered within 30 s"));
  const vorpc::Message::ID id = replies_.at(0)->GetRequestId();
  EXPECT_THAT(cancelled_, ElementsAre(id.value));
  EXPECT_FALSE(std::dynamic_pointer_cast<vorpc::IRequests>(link_.client)->ForgetRequest(id))
      << "the client still waits for the answer";
}

TEST_F(CallerTest, EndsCallsOneAfterAnotherAtTheirTimes) {
  Connect();
  const Ending<void> third(caller_->Call(kPing, CallOptions().Timeout(3s)));
  const Ending<void> first(caller_->Call(kPing, CallOptions().Timeout(1s)));
  const Ending<void> second(caller_->Call(kPing, CallOptions().Timeout(2s)));
  link_.loop->Advance(1s);
  EXPECT_EQ(first.Count() + second.Count() + third.Count(), 1U);
  link_.loop->Advance(1s);
  EXPECT_EQ(second.Count(), 1U);
  link_.loop->Advance(1s);
  EXPECT_EQ(third.Count(), 1U);
}

TEST_F(CallerTest, DropsALateAnswerWithoutALine) {
  Connect();
  const Ending<void> ending(caller_->Call(kPing, CallOptions().Timeout(1s)));
  link_.loop->Advance(1s);
  testing::internal::CaptureStdout();
  replies_.at(0)->SendResult({});
  link_.Pump();
  EXPECT_EQ(testing::internal::GetCapturedStdout(), "");
  EXPECT_EQ(ending.Count(), 1U);
}

TEST_F(CallerTest, WaitsForEverOnlyWhenAsked) {
  Connect();
  const Ending<void> ending(caller_->Call(kPing, CallOptions().Timeout(tarv::kForever)));
  link_.loop->Advance(24h * 365);
  EXPECT_EQ(ending.Count(), 0U);
}

TEST_F(CallerTest, TimesOutAtOnceWithoutTime) {
  Connect();
  const Ending<void> ending(caller_->Call(kPing, CallOptions().Timeout(0s)));
  EXPECT_EQ(ending.Count(), 0U);
  link_.Pump();
  EXPECT_EQ(ending.GetReason(), CallReason::kTimedOut);
  EXPECT_EQ(link_.CountSent("ping"), 0U);
}

TEST_F(CallerTest, HasOneTimer) {
  Connect();
  for (int i = 0; i < 100; ++i) {
    const Ending<void> ending(caller_->Call(kPing));
    link_.loop->Advance(1ms);
    replies_.back()->SendResult({});
    link_.Pump();
  }
  EXPECT_EQ(link_.loop->GetMostWakes(), 1U);
}

TEST_F(CallerTest, DoesNotGatherTimersWhileShortCallsEndBeforeALongOne) {
  Connect();
  const Ending<void> patient(caller_->Call(kPing, CallOptions().Timeout(1h)));
  for (int i = 0; i < 100; ++i) {
    const Ending<void> ending(caller_->Call(kPing, CallOptions().Timeout(1s)));
    link_.loop->Advance(1s);
    EXPECT_EQ(ending.GetReason(), CallReason::kTimedOut);
  }
  EXPECT_EQ(link_.loop->GetMostWakes(), 2U);
  link_.loop->Advance(1h);
  EXPECT_EQ(patient.GetReason(), CallReason::kTimedOut);
}

TEST_F(CallerTest, SetsNoTimerWhenNoCallIsOpen) {
  Make();
  const Ending<void> ending(caller_->Call(kPing, CallOptions().Timeout(1s)));
  link_.loop->Advance(1s);
  EXPECT_EQ(ending.GetReason(), CallReason::kTimedOut);
  EXPECT_EQ(link_.loop->CountWakes(), 0U);
}

TEST_F(CallerTest, CancelsOnTheWireAndEndsTheCall) {
  Connect();
  const auto call = caller_->Call(kPing);
  const Ending<void> ending(call);
  link_.Pump();
  call.Cancel();
  EXPECT_EQ(ending.Count(), 0U) << "a callback inside Cancel";
  link_.Pump();
  call.Cancel();
  link_.Pump();
  EXPECT_EQ(ending.Count(), 1U);
  EXPECT_EQ(ending.GetReason(), CallReason::kCancelled);
  EXPECT_EQ(ending.GetText(), "'ping' of the task 'words' was cancelled by Call::Cancel");
  EXPECT_THAT(cancelled_, ElementsAre(replies_.at(0)->GetRequestId().value));
}

TEST_F(CallerTest, SaysThatATaskDoesNotAnswerTheHandshake) {
  Make();
  link_.loop->Advance(1h);
  const Ending<void> ending(caller_->Call(kPing));
  link_.loop->Advance(9999ms);
  EXPECT_EQ(ending.Count(), 0U);
  link_.loop->Advance(1ms);
  EXPECT_EQ(ending.GetReason(), CallReason::kNeverConnected);
  EXPECT_EQ(ending.GetText(),
            "'ping' of the task 'words' was not sent: the task 'words' runs but has not answered "
            "the handshake for 10 s: does it call server->Run()?");
  const Ending<void> later(caller_->Call(kPing));
  EXPECT_EQ(later.Count(), 0U) << "a callback inside Call";
  link_.Pump();
  EXPECT_EQ(later.GetReason(), CallReason::kNeverConnected);
}

TEST_F(CallerTest, GoesOnWhenASilentTaskConnectsAfterAll) {
  Make();
  const Ending<void> early(caller_->Call(kPing));
  link_.loop->Advance(10s);
  EXPECT_EQ(early.GetReason(), CallReason::kNeverConnected);
  link_.server->Run();
  link_.Pump();
  const Ending<void> late(caller_->Call(kPing));
  link_.Pump();
  replies_.at(0)->SendResult({});
  link_.Pump();
  EXPECT_TRUE(late.Get().HasValue());
}

TEST_F(CallerTest, TellsHowATaskWasLost) {
  const std::vector<std::pair<std::int32_t, CallReason>> codes{
      {-32001, CallReason::kTaskExited},     {-32002, CallReason::kTaskKilled},
      {-32003, CallReason::kConnectionLost}, {-32004, CallReason::kTooLarge},
      {-32005, CallReason::kConnectionLost}, {-32603, CallReason::kConnectionLost}};
  for (const auto& [code, reason] : codes) {
    Link link;
    tarv::Caller caller(link.client, link.loop, Named());
    link.server->Run();
    link.Pump();
    const Ending<void> ending(caller.Call(kSay, "x"));
    link.client->Disconnect(vorpc::Message::Error(code, "it broke"));
    link.Pump();
    EXPECT_EQ(ending.GetReason(), reason) << code;
    EXPECT_EQ(ending.Get().GetError().GetCode(), code);
    EXPECT_EQ(ending.GetText(), "'say' of the task 'words' was sent and has no answer: it broke");
    const Ending<void> after(caller.Call(kPing));
    EXPECT_EQ(after.Count(), 0U) << "a callback inside Call";
    link.Pump();
    EXPECT_EQ(after.GetReason(), reason);
    EXPECT_EQ(after.GetText(),
              "'ping' of the task 'words' was not sent: it broke; under way: 'say'");
  }
}

TEST_F(CallerTest, TellsThatTheConnectionWasClosed) {
  Connect();
  const Ending<void> ending(caller_->Call(kPing));
  link_.client->Disconnect(std::nullopt);
  EXPECT_EQ(ending.GetReason(), CallReason::kConnectionLost);
  EXPECT_EQ(ending.Get().GetError().GetCode(), 0);
  EXPECT_THAT(ending.GetText(), HasSubstr("the connection was closed by this application"));
}

TEST_F(CallerTest, TellsThatTheConnectionWasClosedBeforeItStood) {
  Make();
  const Ending<void> ending(caller_->Call(kPing));
  link_.Pump();
  link_.client->Disconnect(std::nullopt);
  link_.Pump();
  EXPECT_EQ(ending.GetReason(), CallReason::kConnectionLost);
}

TEST_F(CallerTest, TellsATimeThatIsNoWholeSecond) {
  Connect();
  const Ending<void> ending(caller_->Call(kPing, CallOptions().Timeout(1500ms)));
  link_.loop->Advance(1500ms);
  EXPECT_THAT(ending.GetText(), HasSubstr("was not answered within 1500 ms"));
}

TEST_F(CallerTest, TellsThatATaskCouldNotStart) {
  Make();
  const Ending<void> ending(caller_->Call(kPing));
  link_.client->Disconnect(vorpc::Message::Error(-32603, "there is no task 'words'"));
  link_.Pump();
  EXPECT_EQ(ending.GetReason(), CallReason::kNotStarted);
  EXPECT_THAT(ending.GetText(), HasSubstr("was not sent: there is no task 'words'"));
}

TEST_F(CallerTest, TellsThatThereIsNoClient) {
  tarv::Caller caller(nullptr, link_.loop);
  const Ending<void> ending(caller.Call(kPing));
  link_.Pump();
  EXPECT_EQ(ending.GetReason(), CallReason::kNotStarted);
  EXPECT_THAT(ending.GetText(), HasSubstr("'ping' of the task was not sent: there is no client"));
}

TEST_F(CallerTest, RefusesAParameterThatNoMessageHolds) {
  Connect();
  static constexpr tarv::Method<void(std::uint64_t)> kPut{"put"};
  const Ending<void> ending(caller_->Call(kPut, std::numeric_limits<std::uint64_t>::max()));
  link_.Pump();
  EXPECT_EQ(ending.GetReason(), CallReason::kBadArguments);
  EXPECT_THAT(ending.GetText(),
              HasSubstr("'put' of the task 'words' was not sent: params: 184467"));
  EXPECT_EQ(link_.CountSent("put"), 0U);
}

TEST_F(CallerTest, RefusesAResultOfAnotherType) {
  Connect();
  const Ending<Totals> ending(caller_->Call(kCount, {}));
  link_.Pump();
  replies_.at(0)->SendResult(cw::EncodableMap{{"total", "3"}});
  link_.Pump();
  EXPECT_EQ(ending.GetReason(), CallReason::kBadAnswer);
  EXPECT_THAT(ending.GetText(), HasSubstr("result.total: expected int64, got text \"3\""));
}

TEST_F(CallerTest, RunsNoCallbackInsideThen) {
  Connect();
  const auto call = caller_->Call(kPing);
  link_.Pump();
  replies_.at(0)->SendResult({});
  link_.Pump();
  const Ending<void> ending(call);
  EXPECT_EQ(ending.Count(), 0U);
  link_.Pump();
  EXPECT_EQ(ending.Count(), 1U);
}

TEST_F(CallerTest, GoesOnWhenItsHandleIsDropped) {
  Connect();
  auto ended = std::make_shared<int>(0);
  caller_->Call(kPing).Then([ended](const Outcome<void>&) { ++*ended; });
  link_.Pump();
  replies_.at(0)->SendResult({});
  link_.Pump();
  EXPECT_EQ(*ended, 1);
  EXPECT_EQ(ended.use_count(), 1) << "the consumer is kept";
}

TEST_F(CallerTest, LogsWhatAConsumerThrows) {
  Connect();
  caller_->Call(kPing).Then([](const Outcome<void>&) { throw std::runtime_error("oh\nno"); });
  link_.Pump();
  replies_.at(0)->SendResult({});
  testing::internal::CaptureStdout();
  link_.Pump();
  EXPECT_THAT(
      testing::internal::GetCapturedStdout(),
      HasSubstr("An exception left the consumer of 'ping', which must not throw: oh\\nno\n"));
}

TEST_F(CallerTest, LogsWhatAConsumerThrowsThatIsNoException) {
  Connect();
  caller_->Call(kPing).Then([](const Outcome<void>&) { throw 1; });
  link_.Pump();
  replies_.at(0)->SendResult({});
  testing::internal::CaptureStdout();
  link_.Pump();
  EXPECT_THAT(testing::internal::GetCapturedStdout(),
              HasSubstr("An exception of unknown type left the consumer of 'ping'"));
}

TEST_F(CallerTest, LetsAProgressHandlerGoAtTheEnd) {
  Connect();
  const auto call = caller_->Call(kCount, {});
  const auto witness = std::make_shared<int>();
  call.OnProgress([witness](Step) {});
  EXPECT_EQ(witness.use_count(), 2);
  call.Cancel();
  link_.Pump();
  EXPECT_EQ(witness.use_count(), 1);
}

TEST_F(CallerTest, PassesStepsUntilTheEnd) {
  Connect();
  const auto call = caller_->Call(kCount, {});
  std::vector<int> steps;
  call.OnProgress([&steps](Step step) { steps.push_back(step.done); });
  const Ending<Totals> ending(call);
  link_.Pump();
  const std::string id = replies_.at(0)->GetRequestId().value;
  const auto report = [&](int done) {
    link_.SendStep(id, cw::EncodableMap{{"done", done}, {"of", 3}});
  };
  report(1);
  report(2);
  link_.SendStep("another", cw::EncodableMap());
  replies_.at(0)->SendResult(cw::EncodableMap{{"total", 3}, {"each", cw::EncodableList()}});
  report(3);
  link_.Pump();
  EXPECT_THAT(steps, ElementsAre(1, 2));
  EXPECT_TRUE(ending.Get().HasValue());
}

TEST_F(CallerTest, IgnoresAStepWithoutAValueOrAToken) {
  Connect();
  const auto call = caller_->Call(kCount, {});
  int steps = 0;
  call.OnProgress([&steps](Step) { ++steps; });
  link_.Pump();
  const std::string id = replies_.at(0)->GetRequestId().value;
  link_.server->SendNotify("$/progress", cw::EncodableMap{{"token", id}});
  link_.server->SendNotify("$/progress", cw::EncodableMap{{"value", 1}});
  link_.server->SendNotify("$/progress", {});
  link_.Pump();
  EXPECT_EQ(steps, 0);
}

TEST_F(CallerTest, LogsAStepOfAnotherType) {
  Connect();
  const auto call = caller_->Call(kCount, {});
  call.OnProgress([](Step) {});
  link_.Pump();
  link_.SendStep(replies_.at(0)->GetRequestId().value, cw::EncodableMap{{"done", 1}});
  testing::internal::CaptureStdout();
  link_.Pump();
  EXPECT_THAT(testing::internal::GetCapturedStdout(), HasSubstr("progress.of: missing"));
}

TEST_F(CallerTest, NamesTheMethodsThatThereAreWhenOneIsUnknown) {
  const auto service = tarv::Service::For(link_.server, link_.loop);
  service->On(kCount, [](const Texts&) { return Totals(); });
  service->On(kNext, [] { return 1; });
  Connect();
  static constexpr tarv::Method<void()> kCont{"cont"};
  const Ending<void> ending(caller_->Call(kCont));
  link_.Pump();
  EXPECT_EQ(ending.GetReason(), CallReason::kAnswered);
  EXPECT_EQ(ending.Get().GetError().GetCode(), -32601);
  EXPECT_EQ(ending.GetText(),
            "'cont' of the task 'words' is unknown to it: it answers count, next");
}

TEST_F(CallerTest, EndsWithTheErrorOfAnUnknownMethodThoughTheTaskDiesBeforeTheNames) {
  Connect();
  static constexpr tarv::Method<void()> kCont{"cont"};
  link_.server->OnRequest("$/describe", [this](const std::string&, const cw::EncodableValue&,
                                               std::unique_ptr<vorpc::IReply>&& reply) {
    replies_.push_back(std::move(reply));
  });
  const Ending<void> ending(caller_->Call(kCont));
  link_.Pump();
  EXPECT_EQ(ending.Count(), 0U);
  link_.client->Disconnect(vorpc::Message::Error(-32002, "it crashed"));
  EXPECT_EQ(ending.GetReason(), CallReason::kAnswered);
  EXPECT_EQ(ending.Get().GetError().GetCode(), -32601);
}

TEST_F(CallerTest, DoesNotAskForTheNamesTwice) {
  Connect();
  const Ending<tarv::Description> ending(caller_->Call(tarv::kDescribe));
  link_.Pump();
  EXPECT_EQ(ending.Get().GetError().GetCode(), -32601);
  EXPECT_EQ(link_.CountSent("$/describe"), 1U);
}

TEST_F(CallerTest, TellsThatAMethodIsUnknownToATaskWithoutTheLayer) {
  Connect();
  static constexpr tarv::Method<void()> kCont{"cont"};
  const Ending<void> ending(caller_->Call(kCont));
  link_.Pump();
  EXPECT_EQ(ending.Get().GetError().GetCode(), -32601);
  EXPECT_THAT(ending.GetText(), HasSubstr("Unknown method 'cont()'"));
}

TEST_F(CallerTest, EndsWithTheErrorOfAnUnknownMethodThoughTheNamesDoNotCome) {
  Connect();
  link_.server->OnRequest("$/describe", [this](const std::string&, const cw::EncodableValue&,
                                               std::unique_ptr<vorpc::IReply>&& reply) {
    replies_.push_back(std::move(reply));
  });
  static constexpr tarv::Method<void()> kCont{"cont"};
  const Ending<void> ending(caller_->Call(kCont));
  link_.Pump();
  EXPECT_EQ(ending.Count(), 0U);
  link_.loop->Advance(30s);
  EXPECT_EQ(ending.GetReason(), CallReason::kAnswered);
  EXPECT_EQ(ending.Get().GetError().GetCode(), -32601);
}

TEST_F(CallerTest, ReleasesOpenCallsBeforeItIsGone) {
  Connect();
  const Ending<void> sent(caller_->Call(kPing));
  link_.Pump();
  const Ending<void> fresh(caller_->Call(kPing));
  caller_.reset();
  ASSERT_EQ(sent.Count(), 1U);
  EXPECT_EQ(sent.GetReason(), CallReason::kReleased);
  EXPECT_EQ(fresh.GetReason(), CallReason::kReleased);
  EXPECT_THAT(sent.GetText(), HasSubstr("keep the Caller until its calls have ended"));
  link_.Pump();
  EXPECT_EQ(cancelled_.size(), 2U) << "the task works on for nobody";
}

TEST_F(CallerTest, ReleasesCallsThatBeginDuringItsEnd) {
  Connect();
  std::vector<CallReason> reasons;
  tarv::Caller& caller = *caller_;
  caller.Call(kPing).Then([&](const Outcome<void>& outcome) {
    reasons.push_back(outcome.GetError().GetReason());
    caller.Call(kPing).Then(
        [&](const Outcome<void>& again) { reasons.push_back(again.GetError().GetReason()); });
  });
  caller_.reset();
  EXPECT_THAT(reasons, ElementsAre(CallReason::kReleased, CallReason::kReleased));
}

TEST_F(CallerTest, TakesARefusalWithTheServicesOwnCodeForAFailedStart) {
  Make();
  const Ending<void> ending(caller_->Call(kPing));
  for (int attempt = 0; attempt < 4; ++attempt) {
    link_.Pump();
    const auto* const handshake = link_.sent.back().GetRequest();
    ASSERT_NE(handshake, nullptr);
    const auto id = handshake->id;
    link_.client->Receive(vorpc::Message::CreateError(id, -32603, "not today", {}));
  }
  link_.Pump();
  ASSERT_EQ(ending.Count(), 1U);
  EXPECT_EQ(ending.GetReason(), CallReason::kNotStarted);
  EXPECT_THAT(ending.GetText(), HasSubstr("not today"));
}

TEST_F(CallerTest, ReleasesCallsThatOtherThreadsBeginDuringItsEnd) {
  Connect();
  tarv::Caller& caller = *caller_;
  std::optional<Ending<void>> late;
  caller.Call(kPing).Then(
      [&](const Outcome<void>&) { std::thread([&] { late.emplace(caller.Call(kPing)); }).join(); });
  caller_.reset();
  ASSERT_TRUE(late);
  ASSERT_EQ(late->Count(), 1U) << "before the destructor returns";
  EXPECT_EQ(late->GetReason(), CallReason::kReleased);
}

TEST_F(CallerTest, LeavesItsCallsToTheLoopOnceItIsGone) {
  Connect();
  const auto call = caller_->Call(kPing);
  caller_.reset();
  std::thread([&] { call.Cancel(); }).join();
  const Ending<void> ending(call);
  EXPECT_EQ(ending.Count(), 0U);
  link_.Pump();
  ASSERT_EQ(ending.Count(), 1U);
  EXPECT_EQ(ending.GetReason(), CallReason::kReleased);
}

// Runs nothing, and drops it in the end.
class IdleLoop final : public tarv::Loop {
 public:
  bool IsCurrent() const override { return true; }
  void Post(Function function) override { kept_.push_back(std::move(function)); }
  Time Now() const override { return Time(1h); }
  void WakeAt(Time /*time*/, Function function) override { kept_.push_back(std::move(function)); }
  void Drop() { kept_.clear(); }

 private:
  std::vector<Function> kept_;
};

TEST(Caller, LeavesNothingWithALoopThatDropsWhatComesAfterItsEnd) {
  const auto witness = std::make_shared<int>();
  const auto loop = std::make_shared<IdleLoop>();
  {
    auto caller = std::make_unique<tarv::Caller>(nullptr, loop);
    const auto call = caller->Call(kPing);
    caller.reset();
    call.Then([witness](const Outcome<void>&) {});
  }
  EXPECT_EQ(witness.use_count(), 2);
  loop->Drop();
  EXPECT_EQ(witness.use_count(), 1);
}

TEST_F(CallerTest, MayEndInsideAConsumer) {
  Connect();
  caller_->Call(kPing).Then([this](const Outcome<void>&) { caller_.reset(); });
  const Ending<void> other(caller_->Call(kPing));
  link_.Pump();
  replies_.at(0)->SendResult({});
  link_.Pump();
  EXPECT_EQ(other.GetReason(), CallReason::kReleased);
}

TEST_F(CallerTest, MayEndInsideAStep) {
  Connect();
  const auto call = caller_->Call(kCount, {});
  const Ending<Totals> ending(call);
  call.OnProgress([this](Step) { caller_.reset(); });
  link_.Pump();
  link_.SendStep(replies_.at(0)->GetRequestId().value, cw::EncodableMap{{"done", 1}, {"of", 3}});
  link_.Pump();
  EXPECT_EQ(ending.GetReason(), CallReason::kReleased);
}

TEST_F(CallerTest, MayEndInsideATimeOutAndALoss) {
  Connect();
  caller_->Call(kPing, CallOptions().Timeout(1s)).Then([this](const Outcome<void>&) {
    caller_.reset();
  });
  const Ending<void> other(caller_->Call(kPing, CallOptions().Timeout(2s)));
  link_.loop->Advance(5s);
  EXPECT_EQ(other.GetReason(), CallReason::kReleased);

  Link link;
  auto caller = std::make_unique<tarv::Caller>(link.client, link.loop);
  link.server->Run();
  link.Pump();
  caller->Call(kPing).Then([&caller](const Outcome<void>&) { caller.reset(); });
  const Ending<void> last(caller->Call(kPing));
  link.client->Disconnect(std::nullopt);
  EXPECT_EQ(last.Count(), 1U);
}

TEST_F(CallerTest, MayRetryFromAConsumer) {
  Connect();
  int tries = 0;
  std::function<void(const Outcome<void>&)> again = [&](const Outcome<void>&) {
    if (++tries < 3) {
      caller_->Call(kPing, CallOptions().Timeout(1s)).Then(again);
    }
  };
  caller_->Call(kPing, CallOptions().Timeout(1s)).Then(again);
  link_.loop->Advance(1s);
  link_.loop->Advance(1s);
  link_.loop->Advance(1s);
  EXPECT_EQ(tries, 3);
}

TEST_F(CallerTest, WaitsOnAnotherThread) {
  Connect();
  auto waiting = std::async(std::launch::async, [this] { return caller_->Call(kNext).Wait(); });
  while (replies_.empty()) {
    link_.Pump();
  }
  replies_.at(0)->SendResult(5);
  while (waiting.wait_for(0s) != std::future_status::ready) {
    link_.Pump();
  }
  EXPECT_EQ(*waiting.get(), 5);
}

TEST_F(CallerTest, GivesTheOutcomeOfACallThatHasEndedToAWait) {
  Connect();
  const auto call = caller_->Call(kNext);
  link_.Pump();
  replies_.at(0)->SendResult(5);
  link_.Pump();
  auto waiting = std::async(std::launch::async, [&call] { return call.Wait(); });
  ASSERT_EQ(waiting.wait_for(1min), std::future_status::ready);
  EXPECT_EQ(*waiting.get(), 5);
}

TEST_F(CallerTest, EndsAWaitWithItself) {
  Connect();
  auto waiting = std::async(std::launch::async, [this] { return caller_->Call(kNext).Wait(); });
  while (replies_.empty()) {
    link_.Pump();
  }
  caller_.reset();
  EXPECT_EQ(waiting.get().GetError().GetReason(), CallReason::kReleased);
}

TEST_F(CallerTest, DoesNotWaitOnItsOwnThread) {
  Connect();
  const auto call = caller_->Call(kNext);
  const Outcome<std::int32_t> outcome = call.Wait();
  EXPECT_EQ(outcome.GetError().GetReason(), CallReason::kWouldBlock);
  EXPECT_THAT(outcome.GetError().what(), HasSubstr("use Then() or co_await there"));
  const Ending<std::int32_t> ending(call);
  link_.Pump();
  replies_.at(0)->SendResult(5);
  link_.Pump();
  EXPECT_EQ(*ending.Get(), 5);
}

TEST_F(CallerTest, RunsCallbacksOfOtherThreadsCallsOnItsLoop) {
  Connect();
  std::thread::id ran_on;
  std::thread([&] {
    const auto call = caller_->Call(kPing);
    call.Then([&ran_on](const Outcome<void>&) { ran_on = std::this_thread::get_id(); });
    call.Cancel();
  }).join();
  EXPECT_EQ(ran_on, std::thread::id());
  EXPECT_EQ(link_.CountSent("ping"), 0U) << "sent on a thread that is not the loop's";
  link_.Pump();
  EXPECT_EQ(ran_on, std::this_thread::get_id());
}

TEST_F(CallerTest, HearsOnItsLoopWhatComesOnAnotherThread) {
  Connect();
  const auto call = caller_->Call(kCount, {});
  std::vector<std::thread::id> heard_on;
  call.OnProgress([&heard_on](Step) { heard_on.push_back(std::this_thread::get_id()); });
  call.Then(
      [&heard_on](const Outcome<Totals>&) { heard_on.push_back(std::this_thread::get_id()); });
  link_.Pump();
  const vorpc::Message::ID id = replies_.at(0)->GetRequestId();
  std::thread([this, &id] {
    link_.client->Receive(vorpc::Message::CreateNotification(
        "$/progress", cw::EncodableMap{{"token", id.value},
                                       {"value", cw::EncodableMap{{"done", 1}, {"of", 3}}}}));
    link_.client->Receive(vorpc::Message::CreateResponse(
        id, cw::EncodableMap{{"total", 3}, {"each", cw::EncodableList()}}));
  }).join();
  EXPECT_TRUE(heard_on.empty());
  link_.Pump();
  const auto here = std::this_thread::get_id();
  EXPECT_THAT(heard_on, ElementsAre(here, here));
}

TEST_F(CallerTest, EndsItsCallsAlsoWithAClientThatTellsNoIds) {
  caller_ = std::make_unique<tarv::Caller>(std::make_shared<PlainClient>(link_.client), link_.loop);
  link_.server->Run();
  const Ending<std::int32_t> good(caller_->Call(kNext));
  const Ending<void> late(caller_->Call(kPing, CallOptions().Timeout(1s)));
  link_.Pump();
  replies_.at(0)->SendResult(1);
  link_.loop->Advance(1s);
  replies_.at(1)->SendResult({});
  link_.Pump();
  EXPECT_EQ(*good.Get(), 1);
  EXPECT_EQ(late.GetReason(), CallReason::kTimedOut);
  EXPECT_EQ(late.Count(), 1U);
  EXPECT_EQ(caller_->GetMetrics().methods.at("ping").bytes_received, 0U) << "a late answer counts";
}

// Answers what it is sent with the connection's end, which it tells in no other way.
class DeadClient final : public PlainClient {
 public:
  using PlainClient::PlainClient;
  bool HasConnectionFailed() const override { return failed_; }
  void SendRequest(std::string_view /*method*/, const cw::EncodableValue& /*params*/,
                   std::function<void(const vorpc::Message::Response&)>&& callback) override {
    failed_ = true;
    callback(vorpc::Message::Response(vorpc::Message::ID("1"),
                                      vorpc::Message::Error(-32002, "it crashed")));
  }

 private:
  bool failed_ = false;
};

TEST_F(CallerTest, LearnsOfTheConnectionsEndFromAnAnswer) {
  caller_ = std::make_unique<tarv::Caller>(std::make_shared<DeadClient>(link_.client), link_.loop);
  link_.server->Run();
  link_.Pump();
  const Ending<void> ending(caller_->Call(kPing));
  link_.Pump();
  EXPECT_EQ(ending.GetReason(), CallReason::kTaskKilled);
  EXPECT_EQ(ending.GetText(), "'ping' of the task was sent and has no answer: it crashed");
}

// Answers each request before the operation that sends it returns.
class HastyClient final : public PlainClient {
 public:
  using PlainClient::PlainClient;
  void SendRequest(std::string_view /*method*/, const cw::EncodableValue& /*params*/,
                   std::function<void(const vorpc::Message::Response&)>&& callback) override {
    callback(vorpc::Message::Response(vorpc::Message::ID("1"), cw::EncodableValue(1)));
  }
};

TEST_F(CallerTest, RunsNoCallbackInsideCallThoughTheAnswerComesThere) {
  caller_ = std::make_unique<tarv::Caller>(std::make_shared<HastyClient>(link_.client), link_.loop);
  link_.server->Run();
  link_.Pump();
  const auto call = caller_->Call(kNext);
  bool ended = false;
  call.Then([&ended](const Outcome<std::int32_t>& outcome) { ended = *outcome == 1; });
  EXPECT_FALSE(ended);
  link_.Pump();
  EXPECT_TRUE(ended);
}

class ThrowingClient final : public PlainClient {
 public:
  using PlainClient::PlainClient;
  void SendRequest(std::string_view /*method*/, const cw::EncodableValue& /*params*/,
                   std::function<void(const vorpc::Message::Response&)>&& /*callback*/) override {
    throw std::runtime_error("no memory");
  }
};

TEST_F(CallerTest, EndsACallThatItsClientThrowsAt) {
  caller_ =
      std::make_unique<tarv::Caller>(std::make_shared<ThrowingClient>(link_.client), link_.loop);
  link_.server->Run();
  link_.Pump();
  const Ending<std::int32_t> ending(caller_->Call(kNext));
  link_.Pump();
  EXPECT_EQ(ending.GetReason(), CallReason::kBadArguments);
  EXPECT_EQ(ending.GetText(), "'next' of the task could not be sent: no memory");
}

TEST_F(CallerTest, WaitsForEverForTheHandshakeOnlyWhenAsked) {
  caller_ = std::make_unique<tarv::Caller>(link_.client, link_.loop,
                                           Named().ConnectTimeout(tarv::kForever));
  const Ending<void> ending(caller_->Call(kPing, CallOptions().Timeout(tarv::kForever)));
  link_.loop->Advance(24h * 365);
  EXPECT_EQ(ending.Count(), 0U);
}

TEST_F(CallerTest, NamesTheMethodsUnderWayWhenATaskIsLost) {
  Connect();
  std::vector<Ending<void>> endings;
  for (const char* const text : {"a", "b"}) {
    endings.emplace_back(caller_->Call(kSay, text));
  }
  const Ending<void> ping(caller_->Call(kPing));
  link_.client->Disconnect(vorpc::Message::Error(-32002, "it crashed"));
  EXPECT_EQ(ping.GetText(),
            "'ping' of the task 'words' was sent and has no answer: it crashed; under way: 'ping', "
            "'say' (2)");
}

TEST_F(CallerTest, NamesNoMoreThanAFewMethodsUnderWay) {
  Connect();
  static const std::string kNames = "abcdefg";
  std::vector<Ending<void>> endings;
  for (std::size_t i = 0; i < kNames.size(); ++i) {
    const tarv::Method<void()> method{std::string_view(kNames).substr(i, 1)};
    link_.server->OnRequest(method.name, [this](const std::string&, const cw::EncodableValue&,
                                                std::unique_ptr<vorpc::IReply>&& reply) {
      replies_.push_back(std::move(reply));
    });
    endings.emplace_back(caller_->Call(method));
  }
  link_.client->Disconnect(vorpc::Message::Error(-32002, "it crashed"));
  EXPECT_THAT(endings.front().GetText(), HasSubstr("under way: 'a', 'b', 'c', 'd', 'e', ..."));
}

// What the process logs goes to its standard output; the test reads standard error.
void LogToStandardError() { dup2(STDERR_FILENO, STDOUT_FILENO); }

class CallerDeathTest : public CallerTest {
 protected:
  CallerDeathTest() { GTEST_FLAG_SET(death_test_style, "threadsafe"); }
};

TEST_F(CallerDeathTest, StopsAtASecondConsumer) {
  Connect();
  const auto call = caller_->Call(kPing);
  call.Then([](const Outcome<void>&) {});
  EXPECT_DEATH(
      {
        LogToStandardError();
        call.Then([](const Outcome<void>&) {});
      },
      "The call of 'ping' has a second consumer. One of Then, Wait and co_await, once");
  EXPECT_DEATH(
      {
        LogToStandardError();
        std::thread([&call] { call.Wait(); }).join();
      },
      "The call of 'ping' has a second consumer");
}

TEST_F(CallerDeathTest, StopsAtAnEndOnAnotherThread) {
  Connect();
  EXPECT_DEATH(
      {
        LogToStandardError();
        std::thread([this] { caller_.reset(); }).join();
      },
      "A tarv::Caller of the task 'words' is destroyed on another thread than its loop's");
}

TEST_F(CallerTest, CountsWhatHappens) {
  Connect();
  const Ending<void> done(caller_->Call(kSay, "hello"));
  const Ending<void> late(caller_->Call(kSay, "you", CallOptions().Timeout(1s)));
  link_.loop->Advance(10ms);
  replies_.at(0)->SendResult("ok");
  link_.Pump();
  link_.loop->Advance(1s);
  const auto call = caller_->Call(kSay, "there");
  link_.Pump();
  const tarv::MethodMetrics metrics = caller_->GetMetrics().methods.at("say");
  EXPECT_EQ(metrics.calls, 3U);
  EXPECT_THAT(metrics.ends,
              ElementsAre(testing::Pair("kTimedOut", 1U), testing::Pair("kValue", 1U)));
  EXPECT_EQ(metrics.in_flight, 1U);
  EXPECT_EQ(metrics.most_in_flight, 2U);
  EXPECT_NEAR(static_cast<double>(metrics.median_ns), 10e6, 0.7e6);
  EXPECT_NEAR(static_cast<double>(metrics.p99_ns), 1e9, 0.07e9);
  EXPECT_GE(metrics.median_ns, 10'000'000U);
  EXPECT_GE(metrics.p99_ns, 1'000'000'000U);
  EXPECT_EQ(metrics.bytes_sent, 7U + 5U + 7U);
  EXPECT_EQ(metrics.bytes_received, 4U);
}

TEST_F(CallerTest, TellsNoTimesBeforeACallHasEnded) {
  Connect();
  const auto call = caller_->Call(kPing);
  const tarv::MethodMetrics metrics = caller_->GetMetrics().methods.at("ping");
  EXPECT_EQ(metrics.median_ns, 0U);
  EXPECT_EQ(metrics.p99_ns, 0U);
}

TEST_F(CallerTest, TellsTheTimeThatNearlyAllStayedWithin) {
  Connect();
  for (int i = 0; i < 100; ++i) {
    const Ending<void> ending(caller_->Call(kPing));
    link_.loop->Advance(i < 98 ? 10ms : 1s);
    replies_.back()->SendResult({});
    link_.Pump();
  }
  const tarv::MethodMetrics metrics = caller_->GetMetrics().methods.at("ping");
  EXPECT_LT(metrics.median_ns, 11'000'000U);
  EXPECT_GE(metrics.p99_ns, 1'000'000'000U);
}

TEST_F(CallerTest, CountsBytesAsTheCodecWritesThem) {
  Connect();
  static constexpr tarv::Method<void(cw::EncodableValue)> kPut{"say"};
  const auto& codec = cw::StandardMessageCodec::GetInstance();
  std::size_t expected = 0;
  for (const std::size_t size : {std::size_t{0}, std::size_t{253}, std::size_t{254},
                                 std::size_t{65535}, std::size_t{65536}}) {
    const cw::EncodableValue value(
        cw::EncodableMap{{std::string(size, 'k'), cw::EncodableList{std::string(size, 'v'), true}},
                         {"n", cw::EncodableValue()}});
    expected += codec.EncodeMessage(value).GetSize();
    caller_->Call(kPut, value);
  }
  link_.Pump();
  EXPECT_EQ(caller_->GetMetrics().methods.at("say").bytes_sent, expected);
}

}  // namespace
