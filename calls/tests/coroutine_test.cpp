#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <tarv/calls/coroutine.h>

#include "fixture.h"

namespace {

using counting::kCount;
using counting::kNext;
using counting::kPing;
using counting::kSay;
using counting::Step;
using counting::Texts;
using counting::Totals;
using tarv::Async;
using tarv::CallReason;
using tarv::Request;
using tarv::test::Ending;
using tarv::test::Link;
using testing::ElementsAre;
using testing::HasSubstr;
using namespace std::chrono_literals;

// Tells whether what holds it is gone.
class Witness {
 public:
  std::shared_ptr<int> Hold() const { return life_; }
  bool IsFree() const { return life_.use_count() == 1; }

 private:
  std::shared_ptr<int> life_ = std::make_shared<int>();
};

class CoroutineTest : public tarv::test::CallsTest {
 protected:
  CoroutineTest() {
    service_->On(kNext, [this] { return ++next_; });
    service_->On(kSay, [](const std::string& text) { throw tarv::RequestError(9, text); });
    KeepPings();
  }

  int next_ = 0;
};

Async<std::int32_t> Sum(tarv::Caller& caller) {
  const std::int32_t a = co_await caller.Call(kNext);
  const std::int32_t b = co_await caller.Call(kNext);
  co_return a + b;
}

TEST_F(CoroutineTest, AwaitsCallsOneAfterAnother) {
  Async<std::int32_t> sum = Sum(*caller_);
  EXPECT_FALSE(sum.IsDone());
  link_.Pump();
  ASSERT_TRUE(sum.IsDone());
  EXPECT_EQ(sum.Take(), 3);
}

TEST_F(CoroutineTest, AwaitsAnotherCoroutine) {
  const auto twice = [](tarv::Caller& caller) -> Async<std::int32_t> {
    const std::int32_t first = co_await Sum(caller);
    co_return first + co_await Sum(caller);
  };
  Async<std::int32_t> all = twice(*caller_);
  link_.Pump();
  EXPECT_EQ(all.Take(), 1 + 2 + 3 + 4);
}

TEST_F(CoroutineTest, TakesOptionsByTheirNames) {
  const auto run = [](tarv::Caller& caller) -> Async<> {
    co_await caller.Call(kPing, {.timeout = 5s});
  };
  Async<> waiting = run(*caller_);
  link_.loop->Advance(5s);
  ASSERT_TRUE(waiting.IsDone());
  EXPECT_THROW(waiting.Take(), tarv::CallError);
}

TEST_F(CoroutineTest, ThrowsACallsErrorWhereItIsAwaited) {
  const auto run = [](tarv::Caller& caller) -> Async<std::int32_t> {
    try {
      co_await caller.Call(kSay, "x");
    } catch (const tarv::CallError& error) {
      co_return error.GetCode();
    }
    co_return 0;
  };
  Async<std::int32_t> code = run(*caller_);
  link_.Pump();
  EXPECT_EQ(code.Take(), 9);
}

TEST_F(CoroutineTest, GivesAnOutcomeWithoutThrowing) {
  const auto run = [](tarv::Caller& caller) -> Async<bool> {
    const tarv::Outcome<void> outcome = co_await caller.Call(kSay, "x").AsOutcome();
    co_return outcome.HasValue();
  };
  Async<bool> worked = run(*caller_);
  link_.Pump();
  EXPECT_FALSE(worked.Take());
}

TEST_F(CoroutineTest, ResumesWithReleasedAtTheEndOfTheCaller) {
  Async<std::int32_t> sum = Sum(*caller_);
  caller_.reset();
  ASSERT_TRUE(sum.IsDone());
  EXPECT_THROW(sum.Take(), tarv::CallError);
}

Async<> HoldAndWait(tarv::Caller& caller, std::shared_ptr<int> held) {
  co_await caller.Call(kPing);
  static_cast<void>(held);
}

TEST_F(CoroutineTest, DetachesFromItsCallWhenItIsDestroyed) {
  Witness witness;
  {
    Async<> waiting = HoldAndWait(*caller_, witness.Hold());
    link_.Pump();
    EXPECT_FALSE(witness.IsFree());
  }
  EXPECT_TRUE(witness.IsFree());
  open_.at(0).Answer();
  link_.Pump();
  EXPECT_EQ(caller_->GetMetrics().methods.at("ping").ends.at("kValue"), 1U);
}

TEST_F(CoroutineTest, MayBeDestroyedByWhatHearsOfItsEnd) {
  Witness witness;
  auto waiting = std::make_unique<Async<>>(HoldAndWait(*caller_, witness.Hold()));
  waiting->OnDone([&waiting] { waiting.reset(); });
  link_.Pump();
  open_.at(0).Answer();
  link_.Pump();
  EXPECT_EQ(waiting, nullptr);
  EXPECT_TRUE(witness.IsFree());
}

TEST_F(CoroutineTest, LogsAnExceptionThatNobodyTakes) {
  const auto run = [](tarv::Caller& caller) -> Async<> { co_await caller.Call(kSay, "lost"); };
  testing::internal::CaptureStdout();
  {
    const Async<> dropped = run(*caller_);
    link_.Pump();
  }
  EXPECT_THAT(testing::internal::GetCapturedStdout(),
              HasSubstr("An exception left a coroutine that nobody awaits"));
}

TEST_F(CoroutineTest, LogsNoControlCharacterOfAnExceptionThatNobodyTakes) {
  const auto run = [](tarv::Caller& caller) -> Async<> {
    try {
      co_await caller.Call(kSay, "lost");
    } catch (const tarv::CallError&) {
      throw std::runtime_error("two\nlines");
    }
  };
  testing::internal::CaptureStdout();
  {
    const Async<> dropped = run(*caller_);
    link_.Pump();
  }
  EXPECT_THAT(testing::internal::GetCapturedStdout(), HasSubstr("nobody awaits: two\\nlines\n"));
}

// A task whose handler asks another one.
class CoroutineHandlerTest : public CoroutineTest {
 protected:
  CoroutineHandlerTest() {
    far_service_->On(kNext, [](const Request<std::int32_t>& request) { request.Answer(20); });
    far_service_->On(kPing, [this](const Request<void>& request) { open_.push_back(request); });
    far_service_->Run();
    far_.Pump();
  }

  void PumpBoth() const {
    for (int i = 0; i < 10; ++i) {
      link_.Pump();
      far_.Pump();
    }
  }

  Link far_;
  std::shared_ptr<tarv::Service> far_service_ = tarv::Service::For(far_.server, far_.loop);
  tarv::Caller far_caller_{far_.client, far_.loop};
};

TEST_F(CoroutineHandlerTest, AnswersWhenItIsDone) {
  service_->On(kCount, [this](const Texts&, Request<Totals, Step> request) -> Async<Totals> {
    request.Progress({1, 2});
    const std::int32_t next = co_await far_caller_.Call(kNext);
    co_return Totals{next, {}};
  });
  const auto call = caller_->Call(kCount, {});
  int steps = 0;
  call.OnProgress([&steps](Step) { ++steps; });
  const Ending<Totals> ending(call);
  PumpBoth();
  ASSERT_EQ(ending.Count(), 1U);
  EXPECT_EQ(ending.Get()->total, 20);
  EXPECT_EQ(steps, 1);
}

TEST_F(CoroutineHandlerTest, AnswersAtOnceWhenItDoesNotWait) {
  service_->On(kCount, [](const Texts&, Request<Totals, Step>) -> Async<Totals> {
    co_return Totals{4, {}};
  });
  const Ending<Totals> ending(caller_->Call(kCount, {}));
  link_.Pump();
  EXPECT_EQ(ending.Get()->total, 4);
}

TEST_F(CoroutineHandlerTest, AnswersWithWhatItThrows) {
  service_->On(kSay, [](std::string text, Request<void>) -> Async<> {
    if (!text.empty()) {
      throw tarv::RequestError(3, text);
    }
    co_return;
  });
  const Ending<void> bad(caller_->Call(kSay, "bad"));
  const Ending<void> good(caller_->Call(kSay, ""));
  link_.Pump();
  EXPECT_EQ(bad.Get().GetError().GetCode(), 3);
  EXPECT_TRUE(good.Get().HasValue());
}

TEST_F(CoroutineHandlerTest, EndsWithTheServiceAndIsAnsweredAsDropped) {
  Witness witness;
  service_->On(kCount, [this, &witness](const Texts&, Request<Totals, Step>) -> Async<Totals> {
    const auto held = witness.Hold();
    co_await far_caller_.Call(kPing);
    co_return Totals();
  });
  const Ending<Totals> ending(caller_->Call(kCount, {}));
  PumpBoth();
  EXPECT_FALSE(witness.IsFree());
  service_.reset();
  EXPECT_TRUE(witness.IsFree());
  link_.Pump();
  EXPECT_THAT(ending.Get().GetError().GetMessage(), HasSubstr("was dropped by its handler"));
}

TEST_F(CoroutineHandlerTest, MayEndTheService) {
  service_->On(kCount, [this](const Texts&, Request<Totals, Step>) -> Async<Totals> {
    co_await far_caller_.Call(kNext);
    service_.reset();
    co_return Totals();
  });
  const Ending<Totals> ending(caller_->Call(kCount, {}));
  PumpBoth();
  ASSERT_EQ(ending.Count(), 1U);
}

// What it runs inside itself ends before it.
TEST_F(CoroutineHandlerTest, LivesOnWhenItEndsTheServiceAfterAHandlerInsideIt) {
  Witness witness;
  service_->On(kCount, [&, this](const Texts&, Request<Totals, Step>) -> Async<Totals> {
    Witness& kept = witness;  // what the function captures goes with the service
    const auto held = kept.Hold();
    co_await far_caller_.Call(kNext);
    const Ending<std::int32_t> inner(caller_->Call(kNext));
    link_.Pump();
    EXPECT_EQ(inner.Count(), 1U);
    service_.reset();
    EXPECT_FALSE(kept.IsFree()) << "destroyed while it runs";
    co_return Totals();
  });
  const Ending<Totals> ending(caller_->Call(kCount, {}));
  PumpBoth();
  EXPECT_EQ(ending.Count(), 1U);
  EXPECT_TRUE(witness.IsFree());
}

TEST_F(CoroutineHandlerTest, MayBeDoneInsideAHandlerThatEndsTheService) {
  Witness witness;
  service_->On(kCount, [&, this](const Texts&, Request<Totals, Step>) -> Async<Totals> {
    const auto held = witness.Hold();
    co_await far_caller_.Call(kPing);
    co_return Totals{5, {}};
  });
  const Ending<Totals> ending(caller_->Call(kCount, {}));
  PumpBoth();
  service_->On(kNext, [this] {
    service_.reset();
    open_.at(0).Answer();
    far_.Pump();
    return 1;
  });
  const Ending<std::int32_t> next(caller_->Call(kNext));
  PumpBoth();
  EXPECT_EQ(next.Count(), 1U);
  ASSERT_TRUE(ending.Get().HasValue());
  EXPECT_EQ(ending.Get()->total, 5);
  EXPECT_TRUE(witness.IsFree());
}

}  // namespace
