#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <future>
#include <set>

#include "fixture.h"

namespace {

using counting::kCount;
using counting::kNext;
using counting::kPing;
using counting::kSay;
using counting::Step;
using counting::Texts;
using counting::Totals;
using tarv::CallReason;
using tarv::Request;
using tarv::test::Ending;
using testing::ElementsAre;
using testing::HasSubstr;
using namespace std::chrono_literals;

using ServiceTest = tarv::test::CallsTest;

TEST_F(ServiceTest, AnswersWithWhatAHandlerReturns) {
  service_->On(kCount, [](const Texts& texts) -> Totals {
    return {static_cast<std::int64_t>(texts.texts.size()), {1, 2}};
  });
  service_->On(kNext, [] { return 7; });
  std::string said;
  service_->On(kSay, [&said](const std::string& text) { said = text; });
  service_->On(kPing, [] {});
  const Ending<Totals> count(caller_->Call(kCount, {{"a", "b"}}));
  const Ending<std::int32_t> next(caller_->Call(kNext));
  const Ending<void> say(caller_->Call(kSay, "hello"));
  const Ending<void> ping(caller_->Call(kPing));
  link_.Pump();
  EXPECT_EQ(count.Get()->total, 2);
  EXPECT_EQ(*next.Get(), 7);
  EXPECT_TRUE(say.Get().HasValue());
  EXPECT_EQ(said, "hello");
  EXPECT_TRUE(ping.Get().HasValue());
}

TEST_F(ServiceTest, AnswersWrongParametersWithTheirPlace) {
  service_->On(kCount, [](const Texts&) { return Totals(); });
  static constexpr tarv::Method<Totals(cw::EncodableValue)> kAnyCount{"count"};
  const Ending<Totals> ending(
      caller_->Call(kAnyCount, cw::EncodableMap{{"texts", cw::EncodableList{"a", 5}}}));
  link_.Pump();
  EXPECT_EQ(ending.Get().GetError().GetCode(), -32602);
  EXPECT_EQ(ending.Get().GetError().GetMessage(), "params.texts[1]: expected a text, got int32 5");
}

TEST_F(ServiceTest, AnswersWithWhatAHandlerThrows) {
  service_->On(kPing, [] { throw std::runtime_error("no luck"); });
  service_->On(kSay, [](const std::string&) {
    throw tarv::RequestError(1, "not found", cw::EncodableMap{{"errno", 2}});
  });
  service_->On(kNext, []() -> std::int32_t { throw 1; });
  const Ending<void> ping(caller_->Call(kPing));
  const Ending<void> say(caller_->Call(kSay, ""));
  const Ending<std::int32_t> next(caller_->Call(kNext));
  link_.Pump();
  EXPECT_EQ(ping.Get().GetError().GetCode(), -32603);
  EXPECT_EQ(ping.Get().GetError().GetMessage(), "no luck");
  EXPECT_EQ(say.Get().GetError().GetCode(), 1);
  EXPECT_EQ(say.Get().GetError().GetData(), cw::EncodableValue(cw::EncodableMap{{"errno", 2}}));
  EXPECT_EQ(next.Get().GetError().GetCode(), -32603);
  EXPECT_EQ(next.Get().GetError().GetMessage(),
            "The handler of 'next' threw something that is no std::exception.");
}

TEST_F(ServiceTest, LetsAHandlerAnswerLater) {
  std::vector<Request<Totals, Step>> open;
  service_->On(kCount, [&open](const Texts&, const Request<Totals, Step>& request) {
    open.push_back(request);
  });
  const Ending<Totals> ending(caller_->Call(kCount, {}));
  link_.Pump();
  EXPECT_EQ(ending.Count(), 0U);
  open.at(0).Answer({3, {}});
  link_.Pump();
  EXPECT_EQ(ending.Get()->total, 3);
}

TEST_F(ServiceTest, PassesStepsBeforeTheAnswerAndNoneAfter) {
  service_->On(kCount, [](const Texts&, const Request<Totals, Step>& request) {
    request.Progress({1, 3});
    request.Progress({2, 3});
    request.Answer({});
    request.Progress({3, 3});
  });
  const auto call = caller_->Call(kCount, {});
  std::vector<int> steps;
  call.OnProgress([&steps](Step step) { steps.push_back(step.done); });
  link_.Pump();
  EXPECT_THAT(steps, ElementsAre(1, 2));
  EXPECT_EQ(std::count_if(link_.answered.begin(), link_.answered.end(),
                          [](const auto& message) { return message.GetNotification() != nullptr; }),
            2);
}

TEST_F(ServiceTest, AnswersForAHandlerThatDropsItsRequest) {
  service_->On(kPing, [](const Request<void>&) {});
  const Ending<void> ending(caller_->Call(kPing));
  link_.Pump();
  EXPECT_EQ(ending.Get().GetError().GetCode(), -32603);
  EXPECT_EQ(ending.Get().GetError().GetMessage(),
            "The request 'ping' was dropped by its handler, unanswered.");
}

TEST_F(ServiceTest, TellsAHandlerOfACancellation) {
  std::vector<Request<void>> open;
  int told = 0;
  service_->On(kPing, [&](const Request<void>& request) {
    open.push_back(request);
    request.OnCancel([&told] { ++told; });
  });
  const auto call = caller_->Call(kPing);
  link_.Pump();
  EXPECT_FALSE(open.at(0).IsCancelled());
  call.Cancel();
  link_.Pump();
  EXPECT_TRUE(open.at(0).IsCancelled());
  EXPECT_EQ(told, 1);
  open.at(0).OnCancel([&told] { told += 10; });
  EXPECT_EQ(told, 1) << "a callback inside OnCancel";
  link_.Pump();
  EXPECT_EQ(told, 11);
  open.clear();
  EXPECT_EQ(link_.answered.back().GetResponse()->GetError()->code, -32800);
  EXPECT_THAT(service_->GetMetrics().methods.at("ping").ends,
              ElementsAre(testing::Pair("kCancelled", 1U)));
}

TEST_F(ServiceTest, CancelsNothingThatHasItsAnswer) {
  KeepPings();
  const auto call = caller_->Call(kPing);
  link_.Pump();
  const auto witness = std::make_shared<int>();
  open_.at(0).OnCancel([witness] { ADD_FAILURE() << "cancelled after the answer"; });
  open_.at(0).Answer();
  EXPECT_EQ(witness.use_count(), 1) << "the callback is kept";
  open_.at(0).OnCancel([witness] {});
  EXPECT_EQ(witness.use_count(), 1) << "a callback is kept that never runs";
  const std::string id = link_.sent.back().GetRequest()->id.value;
  link_.client->SendNotify("$/cancelRequest", cw::EncodableMap{{"id", id}});
  link_.Pump();
  EXPECT_FALSE(open_.at(0).IsCancelled());
}

TEST_F(ServiceTest, ReportsNoStepAfterACancellation) {
  std::vector<Request<Totals, Step>> open;
  service_->On(kCount, [&open](const Texts&, const Request<Totals, Step>& request) {
    open.push_back(request);
  });
  const auto call = caller_->Call(kCount, {});
  link_.Pump();
  call.Cancel();
  link_.Pump();
  const auto messages = link_.answered.size();
  open.at(0).Progress({1, 2});
  link_.Pump();
  EXPECT_EQ(link_.answered.size(), messages);
}

TEST_F(ServiceTest, LogsASecondAnswer) {
  service_->On(kPing, [](const Request<void>& request) {
    request.Answer();
    request.Fail(1, "no");
  });
  const Ending<void> ending(caller_->Call(kPing));
  testing::internal::CaptureStdout();
  link_.Pump();
  EXPECT_THAT(
      testing::internal::GetCapturedStdout(),
      HasSubstr("The request 'ping' has its answer; another one was given and is dropped."));
  EXPECT_TRUE(ending.Get().HasValue());
}

TEST_F(ServiceTest, AnswersAResultThatNoMessageHolds) {
  static constexpr tarv::Method<std::uint64_t()> kHuge{"huge"};
  service_->On(kHuge, [] { return ~std::uint64_t{0}; });
  const Ending<std::uint64_t> ending(caller_->Call(kHuge));
  link_.Pump();
  EXPECT_EQ(ending.Get().GetError().GetCode(), -32603);
  EXPECT_THAT(ending.Get().GetError().GetMessage(), HasSubstr("result: 18446744073709551615"));
}

TEST_F(ServiceTest, RefusesReservedAndEmptyNames) {
  static constexpr tarv::Method<void()> kReserved{"$/mine"};
  static constexpr tarv::Method<void()> kNameless{""};
  EXPECT_THROW(service_->On(kReserved, [] {}), std::invalid_argument);
  EXPECT_THROW(service_->On(kNameless, [] {}), std::invalid_argument);
}

TEST_F(ServiceTest, IsOneForAServer) {
  EXPECT_EQ(tarv::Service::For(link_.server, link_.loop), service_);
  EXPECT_EQ(tarv::Service::For(nullptr), nullptr);
}

TEST_F(ServiceTest, LivesBesidePlainHandlers) {
  service_->On(kNext, [] { return 1; });
  link_.server->OnRequest("plain",
                          [](const std::string&, const cw::EncodableValue&,
                             std::unique_ptr<vorpc::IReply>&& reply) { reply->SendResult(2); });
  static constexpr tarv::Method<std::int32_t()> kPlain{"plain"};
  const Ending<std::int32_t> ending(caller_->Call(kPlain));
  const Ending<tarv::Description> description(caller_->Call(tarv::kDescribe));
  link_.Pump();
  EXPECT_EQ(*ending.Get(), 2);
  ASSERT_EQ(description.Get()->methods.size(), 1U);
  EXPECT_EQ(description.Get()->methods.at(0).name, "next");
}

TEST_F(ServiceTest, DescribesItself) {
  service_->On(kCount, [](const Texts&) { return Totals(); });
  service_->On(kPing, [] {});
  const Ending<tarv::Description> ending(caller_->Call(tarv::kDescribe));
  link_.Pump();
  const tarv::Description& description = *ending.Get();
  ASSERT_EQ(description.methods.size(), 2U);
  EXPECT_EQ(description.methods.at(0).help, "counts the words of each text");
  EXPECT_EQ(description.methods.at(0).params, tarv::ShapeOf<Texts>());
  EXPECT_EQ(description.methods.at(0).result, tarv::ShapeOf<Totals>());
  EXPECT_EQ(description.methods.at(0).progress, tarv::ShapeOf<Step>());
  EXPECT_TRUE(description.methods.at(1).params.IsNull());
  EXPECT_EQ(description.limits.nesting, 509);
  EXPECT_EQ(description.versions.calls, 1);
  EXPECT_FALSE(description.versions.tarv.empty());
}

TEST_F(ServiceTest, TellsItsMetrics) {
  service_->On(kSay, [](const std::string& text) {
    if (text.empty()) {
      throw std::runtime_error("empty");
    }
  });
  const Ending<void> good(caller_->Call(kSay, "abc"));
  const Ending<void> bad(caller_->Call(kSay, ""));
  link_.Pump();
  const Ending<tarv::Metrics> ending(caller_->Call(tarv::kMetrics));
  link_.Pump();
  ASSERT_EQ(ending.Get()->methods.size(), 1U) << "the layer's own requests are not counted";
  const tarv::MethodMetrics metrics = ending.Get()->methods.at("say");
  EXPECT_EQ(metrics.calls, 2U);
  EXPECT_THAT(metrics.ends,
              ElementsAre(testing::Pair("kAnswered", 1U), testing::Pair("kValue", 1U)));
  EXPECT_EQ(metrics.in_flight, 0U);
  EXPECT_EQ(metrics.bytes_received, 5U + 2U);
  EXPECT_EQ(metrics.bytes_sent, 1U);
}

TEST_F(ServiceTest, WithdrawsItsMethodsAtItsEnd) {
  KeepPings();
  const Ending<void> early(caller_->Call(kPing));
  link_.Pump();
  service_.reset();
  const Ending<void> late(caller_->Call(kPing));
  link_.Pump();
  EXPECT_EQ(late.Get().GetError().GetCode(), -32601);
  open_.at(0).Answer();
  link_.Pump();
  EXPECT_TRUE(early.Get().HasValue());
}

TEST_F(ServiceTest, IsToldOfNoCancellationAfterItsEnd) {
  KeepPings();
  const auto call = caller_->Call(kPing);
  link_.Pump();
  std::thread([this] {
    link_.server->Receive(
        vorpc::Message::CreateNotification("$/cancelRequest", cw::EncodableMap{{"id", "x1"}}));
  }).join();
  service_.reset();
  call.Cancel();
  link_.Pump();
  EXPECT_FALSE(open_.at(0).IsCancelled());
}

TEST_F(ServiceTest, TellsHowLongItsHandlersTook) {
  KeepPings();
  const Ending<void> ending(caller_->Call(kPing));
  link_.Pump();
  link_.loop->Advance(10ms);
  open_.at(0).Answer();
  const tarv::MethodMetrics metrics = service_->GetMetrics().methods.at("ping");
  EXPECT_NEAR(static_cast<double>(metrics.median_ns), 10e6, 0.7e6);
}

// Notes what has a handler.
class HandlerNotes final : public vorpc::IServer {
 public:
  void SendNotify(std::string_view /*method*/, const cw::EncodableValue& /*params*/) override {}
  void OnConnected(
      std::function<void(const std::optional<vorpc::Message::Error>&)>&& /*callback*/) override {}
  void OnRequest(std::string_view method, RequestHandler handler) override {
    if (handler) {
      handled.emplace(method);
    } else {
      handled.erase(std::string(method));
    }
  }
  void OnNotify(std::string_view /*method*/,
                std::function<void(const vorpc::Message::Notification&)>&& /*callback*/) override {}
  void Run() override {}

  std::set<std::string> handled;
};

TEST_F(ServiceTest, TakesAllItsHandlersFromTheServerAtItsEnd) {
  const auto server = std::make_shared<HandlerNotes>();
  auto service = tarv::Service::For(server, link_.loop);
  service->On(kNext, [] { return 1; });
  service->On(kPing, [] {});
  EXPECT_THAT(server->handled, ElementsAre("$/describe", "$/metrics", "next", "ping"));
  service.reset();
  EXPECT_THAT(server->handled, testing::IsEmpty());
}

TEST_F(ServiceTest, MayEndInsideItsHandlerAndComeBack) {
  service_->On(kPing, [this] { service_.reset(); });
  const Ending<void> ending(caller_->Call(kPing));
  link_.Pump();
  EXPECT_TRUE(ending.Get().HasValue());
  service_ = tarv::Service::For(link_.server, link_.loop);
  service_->On(kNext, [] { return 3; });
  const Ending<std::int32_t> next(caller_->Call(kNext));
  link_.Pump();
  EXPECT_EQ(*next.Get(), 3);
}

TEST_F(ServiceTest, AnswersFromWorkers) {
  tarv::Workers workers(2);
  const auto here = std::this_thread::get_id();
  service_->On(kCount, workers, [here](const Texts& texts, const tarv::Running<Step>& running) {
    EXPECT_NE(std::this_thread::get_id(), here);
    running.Progress({1, 1});
    return Totals{static_cast<std::int64_t>(texts.texts.size()), {}};
  });
  service_->On(kNext, workers, [] { return 7; });
  service_->On(kPing, workers, [] { throw std::runtime_error("tired"); });
  const auto call = caller_->Call(kCount, {{"a"}});
  std::vector<int> steps;
  call.OnProgress([&steps](Step step) { steps.push_back(step.done); });
  const Ending<Totals> count(call);
  const Ending<std::int32_t> next(caller_->Call(kNext));
  const Ending<void> ping(caller_->Call(kPing));
  PumpUntilEnd(count);
  PumpUntilEnd(next);
  PumpUntilEnd(ping);
  EXPECT_EQ(count.Get()->total, 1);
  EXPECT_THAT(steps, ElementsAre(1));
  EXPECT_EQ(*next.Get(), 7);
  EXPECT_EQ(ping.Get().GetError().GetMessage(), "tired");
  EXPECT_THAT(link_.answerers, ElementsAre(here)) << "a worker has touched the server";
}

TEST_F(ServiceTest, AnswersWrongParametersBeforeAWorkerIsAsked) {
  tarv::Workers workers(1);
  std::atomic<bool> ran{false};
  service_->On(kCount, workers, [&ran](const Texts&, const tarv::Running<Step>&) {
    ran = true;
    return Totals();
  });
  static constexpr tarv::Method<Totals(cw::EncodableValue)> kAnyCount{"count"};
  const Ending<Totals> ending(caller_->Call(kAnyCount, cw::EncodableMap{{"texts", 5}}));
  link_.Pump();
  ASSERT_EQ(ending.Count(), 1U);
  EXPECT_EQ(ending.Get().GetError().GetCode(), -32602);
  EXPECT_EQ(ending.Get().GetError().GetMessage(), "params.texts: expected a list, got int32 5");
  service_->On(kNext, workers, [] { return 7; });
  const Ending<std::int32_t> next(caller_->Call(kNext));  // comes to the worker later
  PumpUntilEnd(next);
  EXPECT_FALSE(ran);
}

TEST(WorkersTest, GoOnAfterAnEmptyJob) {
  tarv::Workers workers(1);
  workers.Post({});
  std::promise<void> ran;
  workers.Post([&ran] { ran.set_value(); });
  EXPECT_EQ(ran.get_future().wait_for(10s), std::future_status::ready);
}

TEST_F(ServiceTest, RunsAsManyAtATimeAsThereAreWorkers) {
  tarv::Workers workers(3);
  std::atomic<int> inside{0};
  std::atomic<bool> go{false};
  service_->On(kPing, workers, [&] {
    ++inside;
    while (!go) {
      std::this_thread::yield();
    }
  });
  std::vector<Ending<void>> endings;
  for (int i = 0; i < 4; ++i) {
    endings.emplace_back(caller_->Call(kPing));
  }
  PumpUntil([&inside] { return inside == 3; });
  go = true;
  for (const auto& ending : endings) {
    PumpUntilEnd(ending);
  }
  EXPECT_EQ(inside, 4);
}

TEST_F(ServiceTest, HandlesOnItsLoopWhatComesOnAnotherThread) {
  std::vector<std::thread::id> handled_on;
  service_->On(kPing, [&](const Request<void>& request) {
    handled_on.push_back(std::this_thread::get_id());
    request.OnCancel([&] { handled_on.push_back(std::this_thread::get_id()); });
    open_.push_back(request);
  });
  std::thread([this] {
    const vorpc::Message::ID id("x1");
    link_.server->Receive(vorpc::Message::CreateRequest(id, "ping", {}));
    link_.server->Receive(
        vorpc::Message::CreateNotification("$/cancelRequest", cw::EncodableMap{{"id", "x1"}}));
  }).join();
  EXPECT_TRUE(handled_on.empty());
  link_.Pump();
  const auto here = std::this_thread::get_id();
  EXPECT_THAT(handled_on, ElementsAre(here, here));
}

TEST_F(ServiceTest, LetsAWorkerSeeThatItWasCancelled) {
  tarv::Workers workers(1);
  std::atomic<bool> begun{false};
  std::atomic<bool> seen{false};
  service_->On(kCount, workers, [&](const Texts&, const tarv::Running<Step>& running) {
    begun = true;
    while (!running.IsCancelled()) {
      std::this_thread::yield();
    }
    seen = true;
    return Totals();
  });
  std::atomic<int> runs{0};
  service_->On(kPing, workers, [&runs] { ++runs; });
  const auto call = caller_->Call(kCount, {});
  const auto queued = caller_->Call(kPing);
  PumpUntil([&begun] { return begun.load(); });
  queued.Cancel();
  link_.Pump();
  call.Cancel();
  PumpUntil([&seen] { return seen.load(); });
  const Ending<void> last(caller_->Call(kPing));
  PumpUntilEnd(last);
  EXPECT_EQ(runs, 1) << "a request that was cancelled in the queue ran";
}

TEST_F(ServiceTest, AnswersWhatItsWorkersLeaveUndoneAsDropped) {
  auto workers = std::make_unique<tarv::Workers>(1);
  std::atomic<bool> begun{false};
  service_->On(kCount, *workers, [&](const Texts&, const tarv::Running<Step>& running) {
    begun = true;
    while (!running.IsCancelled()) {
      std::this_thread::yield();
    }
    return Totals{1, {}};
  });
  const Ending<Totals> running(caller_->Call(kCount, {}));
  const Ending<Totals> queued(caller_->Call(kCount, {}));
  PumpUntil([&begun] { return begun.load(); });
  workers.reset();
  link_.Pump();
  EXPECT_EQ(running.Get()->total, 1);
  EXPECT_THAT(queued.Get().GetError().GetMessage(), HasSubstr("was dropped by its handler"));
  const Ending<Totals> late(caller_->Call(kCount, {}));
  link_.Pump();
  EXPECT_THAT(late.Get().GetError().GetMessage(), HasSubstr("was dropped by its handler"));
}

TEST_F(ServiceTest, HasAtLeastOneWorker) {
  tarv::Workers workers(0);
  service_->On(kNext, workers, [] { return 7; });
  const Ending<std::int32_t> ending(caller_->Call(kNext));
  PumpUntilEnd(ending);
  EXPECT_EQ(*ending.Get(), 7);
}

TEST_F(ServiceTest, DropsJobsThatComeWhileItsWorkersEnd) {
  auto workers = std::make_unique<tarv::Workers>(1);
  std::atomic<long> holders{0};
  service_->On(kPing, *workers, [&workers, &holders] {
    const auto post = workers->GetPost();
    workers.reset();
    const auto witness = std::make_shared<int>();
    post([witness] { ADD_FAILURE() << "a job ran after the end"; });
    holders = witness.use_count();
  });
  const Ending<void> ending(caller_->Call(kPing));
  PumpUntilEnd(ending);
  EXPECT_EQ(holders, 1) << "the job is kept";
}

TEST_F(ServiceTest, MayLoseItsWorkersInsideTheirHandler) {
  auto workers = std::make_unique<tarv::Workers>(2);
  service_->On(kPing, *workers, [&workers] { workers.reset(); });
  const Ending<void> ending(caller_->Call(kPing));
  PumpUntilEnd(ending);
  EXPECT_TRUE(ending.Get().HasValue());
}

}  // namespace
