#include <gmock/gmock.h>
#include <tarv/calls/kept_task.h>
#include <tarv/testing/loopback.h>
#include <tarv/testing/matchers.h>

#include <chrono>
#include <csignal>
#include <memory>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "word_count.h"

namespace {

using tarv::CallOptions;
using tarv::testing::Answers;
using tarv::testing::ConnectionLost;
using tarv::testing::EndsFor;
using tarv::testing::IsError;
using tarv::testing::IsOpen;
using tarv::testing::Loopback;
using tarv::testing::LoopbackOptions;
using tarv::testing::TaskExited;
using tarv::testing::TaskKilled;
using tarv::testing::TimedOut;
using tarv::testing::Way;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using word_count::kCount;
using word_count::kWait;
using word_count::Totals;
using namespace std::chrono_literals;

class LoopbackTest : public ::testing::Test {
 protected:
  Loopback link{LoopbackOptions().TaskName("counting")};
  std::optional<word_count::WordCount> task{std::in_place, link.GetServer(), link.GetLoop()};

  void Connect() {
    const auto call = link.Call(kCount, {});
    link.Pump();
    ASSERT_THAT(call, Answers());
    link.ClearTranscript();
  }
};

TEST_F(LoopbackTest, AnswersACallOnceItIsPumped) {
  const auto call = link.Call(kCount, {{"a b"}});
  EXPECT_THAT(call, IsOpen());
  link.Pump();
  EXPECT_THAT(call, Answers(Totals{2, {2}}));
  EXPECT_EQ(call.GetSteps().size(), 1U);
  EXPECT_EQ(link.GetTranscript(),
            "-> connect\n"
            "<- connected\n"
            "-> request 1 'count' {\"texts\": [\"a b\"]}\n"
            "<- notification '$/progress' {\"token\": 1, \"value\": {\"done\": 0, \"of\": 1}}\n"
            "<- result 1 {\"each\": int32[2], \"total\": 2L}\n");
}

TEST_F(LoopbackTest, LetsDeadlinesPassInOrder) {
  Connect();
  std::vector<int> order;
  tarv::Caller& caller = link.GetCaller();
  caller.Call(kWait, CallOptions().Timeout(20s)).Then([&](const auto&) { order.push_back(20); });
  caller.Call(kWait, CallOptions().Timeout(10s)).Then([&](const auto&) { order.push_back(10); });
  const auto call = link.Call(kWait);
  link.Advance(30s - 1ms);
  EXPECT_THAT(order, ElementsAre(10, 20));
  EXPECT_THAT(call, IsOpen());
  link.Advance(1ms);
  EXPECT_THAT(call,
              TimedOut(HasSubstr("'wait' of the task 'counting' was not answered within 30 s")));
  EXPECT_EQ(link.GetTranscript(),
            "-> request 2 'wait'\n"
            "-> request 3 'wait'\n"
            "-> request 4 'wait'\n"
            "-- 10.0 s later\n"
            "-> notification '$/cancelRequest' {\"id\": 3}\n"
            "-- 10.0 s later\n"
            "-> notification '$/cancelRequest' {\"id\": 2}\n"
            "-- 10.0 s later\n"
            "-> notification '$/cancelRequest' {\"id\": 4}\n");
}

TEST_F(LoopbackTest, KillsTheTaskAsAClientSeesIt) {
  Connect();
  const auto call = link.Call(kWait);
  link.Advance(2s);
  link.KillTask(SIGKILL, "a wild pointer");
  EXPECT_THAT(call, IsOpen()) << "the news comes with the next Pump";
  link.Pump();
  EXPECT_THAT(call, TaskKilled("'wait' of the task 'counting' was sent and has no answer: the task "
                               "'counting' (process 1) was killed by signal 9 (SIGKILL) after 2.0 "
                               "s; its last words: a wild pointer"));
  const auto late = link.Call(kWait);
  link.Pump();
  EXPECT_THAT(late, TaskKilled(HasSubstr("was not sent")));
  EXPECT_EQ(link.GetTranscript(),
            "-> request 2 'wait'\n"
            "-- 2.0 s later\n"
            "-- the task was killed by signal 9 (SIGKILL)\n");
}

TEST_F(LoopbackTest, EndsTheTaskOnce) {
  Connect();
  link.ExitTask(3);
  link.KillTask(SIGKILL);
  const auto call = link.Call(kWait);
  link.Pump();
  EXPECT_THAT(call, TaskExited(HasSubstr("exited with status 3")));
  EXPECT_EQ(link.GetTranscript(),
            "-- the task exited with status 3\n"
            "-> request 2 'wait' (lost: the connection has ended)\n");
}

TEST_F(LoopbackTest, DeliversWhatTheTaskHadSentBeforeItsEnd) {
  Connect();
  link.Next(Way::kFromTask).Delay(5s);  // the step, and so the answer behind it
  const auto call = link.Call(kCount, {{"a b"}});
  link.Pump();
  EXPECT_THAT(call, IsOpen());
  link.ExitTask(0);
  link.Pump();
  EXPECT_THAT(call, Answers(Totals{2, {2}}));
}

TEST_F(LoopbackTest, SaysThatWhatADeadTaskSendsIsLost) {
  Connect();
  std::unique_ptr<vorpc::IReply> kept;
  link.GetServer()->OnRequest(
      "keep", [&kept](const std::string&, const cw::EncodableValue&,
                      std::unique_ptr<vorpc::IReply>&& reply) { kept = std::move(reply); });
  const auto call = link.Call("keep");
  link.Pump();
  link.KillTask(SIGTERM);
  kept->SendResult(5);
  link.Pump();
  EXPECT_THAT(call, TaskKilled(HasSubstr("SIGTERM")));
  EXPECT_THAT(link.GetTranscript(), HasSubstr("<- result 2 5 (lost: the connection has ended)\n"));
}

TEST_F(LoopbackTest, StopsTheTaskAndLetsItGoOn) {
  Connect();
  link.GetServer()->OnRequest("stop", [this](const std::string&, const cw::EncodableValue&,
                                             std::unique_ptr<vorpc::IReply>&& reply) {
    link.KillTask(SIGSTOP);
    reply->SendResult(1);
  });
  const auto stopped = link.Call("stop");
  const auto behind = link.Call(kCount, {});
  link.Advance(5s);
  EXPECT_THAT(stopped, IsOpen());
  EXPECT_THAT(behind, IsOpen());
  link.KillTask(SIGCONT);
  link.Pump();
  EXPECT_THAT(stopped, Answers());
  EXPECT_THAT(behind, Answers());
  EXPECT_THAT(link.GetTranscript(), HasSubstr("-- the task is stopped\n"
                                              "-- 5.0 s later\n"
                                              "-- the task goes on\n"
                                              "<- result 2 1\n"));
}

TEST_F(LoopbackTest, EndsTheConnectionWhenTooMuchWaits) {
  Loopback small(LoopbackOptions().TaskName("counting").MaxQueue(5000));
  const word_count::WordCount its_task(small.GetServer(), small.GetLoop());
  small.KillTask(SIGSTOP);
  const auto first = small.Call(kCount, {});
  small.GetClient()->SendNotify("before it has connected", {});
  small.KillTask(SIGCONT);
  small.Pump();
  small.KillTask(SIGSTOP);
  const auto call = small.Call(kCount, {{std::string(3000, 'x')}});
  const auto last = small.Call(kCount, {{std::string(3000, 'x')}});
  small.Pump();
  EXPECT_THAT(first, Answers());
  EXPECT_THAT(call, ConnectionLost(HasSubstr("task 'counting' does not read: more than the 5000 "
                                             "bytes that RUNTIME_MANAGER_MAX_QUEUE sets")));
}

TEST_F(LoopbackTest, EndsAsTheManagerDoes) {
  Connect();
  const auto call = link.Call(kWait);
  link.Pump();
  link.EndManager();
  link.Pump();
  EXPECT_THAT(call, EndsFor(tarv::CallReason::kReleased, HasSubstr("ManagerWrapper")));
}

TEST_F(LoopbackTest, LetsATestPlayTheTask) {
  Loopback played;
  std::vector<std::string> heard;
  played.PlayTask([&](const vorpc::Message& message) {
    heard.push_back(message.GetRequest()->method);
    played.SendAsTask(vorpc::Message::CreateError(message.GetRequest()->id, 42, "not today", {}));
  });
  const auto call = played.Call(kWait);
  played.Pump();
  EXPECT_THAT(call, EndsFor(tarv::CallReason::kNeverConnected, HasSubstr("not today")));
  EXPECT_THAT(heard, ::testing::Each("vorpc.connected"));
  EXPECT_FALSE(heard.empty());
}

TEST_F(LoopbackTest, HangsUp) {
  Connect();
  const auto call = link.Call(kWait);
  link.Pump();
  link.HangUp();
  link.Pump();
  EXPECT_THAT(call,
              ConnectionLost(HasSubstr("task 'counting' closed the connection, or has ended")));
}

TEST_F(LoopbackTest, RefusesToStartTheTask) {
  const auto call = link.Call(kWait);
  link.RefuseToStart("the task 'counting' is not installed");
  link.Pump();
  EXPECT_THAT(call, EndsFor(tarv::CallReason::kNotStarted,
                            "'wait' of the task 'counting' was not sent: the task 'counting' is "
                            "not installed"));
}

TEST_F(LoopbackTest, EndsTheConnectionAtAMessageAboveItsBound) {
  Loopback small(LoopbackOptions().TaskName("counting").MaxMessage(1000));
  const word_count::WordCount its_task(small.GetServer(), small.GetLoop());
  const auto call = small.Call(kCount, {{std::string(1000, 'x')}});
  small.Pump();
  EXPECT_THAT(call, EndsFor(tarv::CallReason::kTooLarge,
                            HasSubstr("a message to task 'counting' is over the bound of 1000 "
                                      "bytes that RUNTIME_MANAGER_MAX_MESSAGE sets")));
}

TEST_F(LoopbackTest, DropsTheNextMessage) {
  Connect();
  link.Next().Drop();
  const auto call = link.Call(kCount, {});
  const auto next = link.Call(kCount, {{"a"}}, CallOptions().Timeout(5s));
  link.Pump();
  EXPECT_EQ(link.CountUnusedFaults(), 0U);
  EXPECT_THAT(next, Answers(Totals{1, {1}}));
  EXPECT_THAT(call, IsOpen());
  EXPECT_THAT(link.GetTranscript(), HasSubstr("-> request 2 'count' {\"texts\": []} (dropped)\n"));
  link.Advance(30s);
  EXPECT_THAT(call, TimedOut());
}

TEST_F(LoopbackTest, DelaysTheNextMessageAndWhatIsBehindIt) {
  Connect();
  link.Next(Way::kToTask).Delay(2s);
  const auto call = link.Call(kCount, {});
  const auto behind = link.Call(kCount, {});
  link.Advance(2s - 1ns);
  EXPECT_THAT(call, IsOpen());
  EXPECT_THAT(behind, IsOpen());
  link.Advance(1ns);
  EXPECT_THAT(call, Answers());
  EXPECT_THAT(behind, Answers());
  EXPECT_THAT(link.GetTranscript(),
              HasSubstr("-> request 2 'count' {\"texts\": []} (delayed 2.0 s)\n"
                        "-> request 3 'count' {\"texts\": []}\n"
                        "-- 2.0 s later\n"
                        "<- notification '$/progress' {\"token\": 2, "));
}

TEST_F(LoopbackTest, CorruptsTruncatesAndDuplicatesTheNextMessages) {
  Connect();
  link.Next(Way::kToTask).Corrupt();
  link.Next(Way::kToTask).Truncate();
  link.Next(Way::kToTask).Duplicate();
  const auto corrupted = link.Call(kCount, {});
  const auto truncated = link.Call(kCount, {});
  int runs = 0;
  link.GetServer()->OnRequest("plain", [&runs](const std::string&, const cw::EncodableValue& params,
                                               std::unique_ptr<vorpc::IReply>&& reply) {
    ++runs;
    reply->SendResult(params);
  });
  const auto duplicated = link.Call("plain", 7);
  link.Pump();
  EXPECT_THAT(duplicated, Answers(cw::EncodableValue(7)));
  EXPECT_EQ(runs, 2);
  link.Advance(30s);
  EXPECT_THAT(corrupted, TimedOut());
  EXPECT_THAT(truncated, TimedOut());
  EXPECT_THAT(link.GetTranscript(), HasSubstr("(corrupted)\n"));
  EXPECT_THAT(link.GetTranscript(), HasSubstr("(truncated)\n"));
  EXPECT_THAT(link.GetTranscript(), HasSubstr("-> request 4 'plain' 7 (duplicated)\n"
                                              "<- result 4 7\n"
                                              "<- result 4 7\n"));
}

TEST_F(LoopbackTest, JoinsFaultsOfOneMessage) {
  Connect();
  link.Next().Delay(1s).Duplicate();
  const auto call = link.Call(kCount, {});
  link.Advance(1s);
  EXPECT_THAT(call, Answers());
  EXPECT_THAT(link.GetTranscript(), HasSubstr("(delayed 1.0 s, duplicated)"));
}

TEST_F(LoopbackTest, CarriesPlainRequestsAndNotificationsBothWays) {
  const auto client = link.GetClient();
  const auto server = link.GetServer();
  std::vector<std::string> heard;
  server->OnRequest("double", [](const std::string&, const cw::EncodableValue& params,
                                 std::unique_ptr<vorpc::IReply>&& reply) {
    reply->SendResult(std::get<std::int32_t>(params) * 2);
  });
  server->OnNotify("to task", [&](const auto&) { heard.emplace_back("to task"); });
  client->OnNotify("to application", [&](const auto&) { heard.emplace_back("to application"); });
  client->Run();
  client->SendNotify("to task", {});
  server->SendNotify("to application", {});
  std::optional<cw::EncodableValue> result;
  client->SendRequest("double", 21, [&result](const vorpc::Message::Response& response) {
    result = *response.GetResult();
  });
  link.Pump();
  EXPECT_EQ(result, cw::EncodableValue(42));
  EXPECT_THAT(heard, ::testing::UnorderedElementsAre("to task", "to application"));
}

TEST_F(LoopbackTest, LetsTheExceptionOfAPlainHandlerOut) {
  Connect();
  link.GetServer()->OnNotify("fail",
                             [](const auto&) { throw std::runtime_error("a tired handler"); });
  link.GetClient()->SendNotify("fail", {});
  EXPECT_THROW(link.Pump(), std::runtime_error);
}

TEST_F(LoopbackTest, WaitsForWorkers) {
  tarv::Workers workers(2);
  const auto service = tarv::Service::For(link.GetServer(), link.GetLoop());
  service->On(kCount, workers, [](const word_count::Texts& texts) { return Count(texts); });
  const auto call = link.Call(kCount, {{"a b c"}});
  EXPECT_TRUE(link.GetManualLoop().PumpUntil([&call] { return call.HasEnded(); }));
  EXPECT_THAT(call, Answers(Totals{3, {3}}));
}

TEST_F(LoopbackTest, ReleasesOpenCallsAtItsEnd) {
  auto other = std::make_unique<Loopback>();
  const auto call = other->Call(kWait);
  other.reset();
  EXPECT_THAT(call, EndsFor(tarv::CallReason::kReleased));
  EXPECT_EQ(call.GetTranscript(), "-> connect\n");
}

TEST_F(LoopbackTest, TellsWhatAnOpenCallHasSeen) {
  const auto call = link.Call(kWait);
  link.Pump();
  try {
    static_cast<void>(call.GetOutcome());
    FAIL() << "it has ended";
  } catch (const std::logic_error& error) {
    EXPECT_THAT(error.what(), HasSubstr("the call of 'wait' has not ended; the transcript:\n"
                                        "-> connect\n<- connected\n-> request 1 'wait'\n"));
  }
}

// A task that dies, and one that takes its place.
TEST_F(LoopbackTest, StandsBehindAKeptTask) {
  const auto loop = std::make_shared<tarv::testing::ManualLoop>();
  std::vector<std::unique_ptr<Loopback>> links;
  std::vector<std::unique_ptr<word_count::WordCount>> tasks;
  tarv::KeptTask kept(
      [&] {
        const auto& start = links.emplace_back(std::make_unique<Loopback>(LoopbackOptions(), loop));
        tasks.push_back(std::make_unique<word_count::WordCount>(start->GetServer(), loop));
        return start->GetClient();
      },
      "counting", {}, loop);
  std::vector<std::string> ends;
  const auto call = [&] {
    kept.Call(kCount, {}).Then([&ends](const tarv::Outcome<Totals>& outcome) {
      ends.emplace_back(outcome ? "value" : tarv::NameOf(outcome.GetError().GetReason()));
    });
  };
  call();
  loop->Pump();
  kept.Call(kWait).Then([&ends](const tarv::Outcome<void>& outcome) {
    ends.emplace_back(tarv::NameOf(outcome.GetError().GetReason()));
  });
  loop->Pump();
  links.at(0)->KillTask(SIGKILL);
  loop->Pump();
  call();
  loop->Advance(1s);
  EXPECT_THAT(ends, ElementsAre("value", "kTaskKilled", "value"));
  EXPECT_EQ(links.size(), 2U);
}

std::string RunOnce() {
  Loopback link;
  const word_count::WordCount task(link.GetServer(), link.GetLoop());
  link.Next(Way::kFromTask).Delay(10ms);
  std::vector<tarv::testing::ObservedCall<Totals, word_count::Step>> calls;
  for (int i = 0; i < 5; ++i) {
    calls.push_back(link.Call(kCount, {{std::to_string(i), "two words"}}));
  }
  link.Next(Way::kFromTask).Corrupt();
  link.Next(Way::kToTask).Duplicate();
  const auto wait = link.Call(kWait, CallOptions().Timeout(3s));
  link.Pump();
  calls.at(2).Cancel();
  link.Advance(5s);
  link.Next().Drop();
  calls.push_back(link.Call(kCount, {}));
  link.Pump();
  link.KillTask(SIGSEGV);
  link.Pump();
  EXPECT_THAT(calls.back(), TaskKilled());
  EXPECT_THAT(wait, TimedOut());
  return link.GetTranscript();
}

TEST(LoopbackRepeated, GivesOneTranscriptInAThousandRuns) {
  const std::string first = RunOnce();
  EXPECT_THAT(first, HasSubstr("-- the task was killed by signal 11 (SIGSEGV)\n"));
  for (int run = 1; run < 1000; ++run) {
    ASSERT_EQ(RunOnce(), first) << "in run " << run;
  }
}

}  // namespace
