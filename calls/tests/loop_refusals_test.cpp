// Qt's loop, and a task that is kept, where each allocation is refused in its turn.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <tarv/calls/kept_task.h>
#include <tarv/calls/loop.h>

#include <QCoreApplication>
#include <QEventLoop>
#include <algorithm>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "link.h"
#include "refusal.h"
#include "values.h"

namespace {

using counting::kNext;
using tarv::Loop;
using tarv::Outcome;
using tarv::test::Ending;
using tarv::test::Link;
using tarv::test::Met;
using tarv::test::RefuseEach;
using tarv::test::TestLoop;
using tarv::test::Where;
using testing::ElementsAre;
using namespace std::chrono_literals;

constexpr char kLong[] = "a text that is too long to stand where the text itself stands";

int argument_count = 1;
char program_name[] = "calls_memory_tests";
char* arguments[] = {program_name, nullptr};

// A loop on which three functions wait for their times.
struct LoopWorld {
  LoopWorld() {
    order.reserve(10);
    for (const int place : {4, 2, 3}) {
      loop->WakeAt(begin + place * 10ms, [this, place] { order.push_back(place); });
    }
  }
  void RunAll() const {
    while (order.empty() || order.back() != 4) {
      QCoreApplication::processEvents(QEventLoop::WaitForMoreEvents, 20);
    }
  }

  const std::shared_ptr<Loop> loop = Loop::OfThisThread();
  const Loop::Time begin = loop->Now();
  const std::shared_ptr<int> witness = std::make_shared<int>();
  std::vector<int> order;
};

class EachRefusalOfQtsLoop : public testing::Test {
 protected:
  QCoreApplication application_{argument_count, arguments};
};

TEST_F(EachRefusalOfQtsLoop, OfAWakeLeavesTheOthers) {
  const auto wake = [](LoopWorld& world) {
    world.loop->WakeAt(world.begin,
                       [&world, witness = world.witness] { world.order.push_back(1); });
  };
  const auto check = [](LoopWorld& world, const Met& met) {
    EXPECT_EQ(world.witness.use_count(), met.threw ? 1 : 2);
    world.RunAll();
    if (met.threw) {
      EXPECT_THAT(world.order, ElementsAre(2, 3, 4));
    } else {
      EXPECT_THAT(world.order, ElementsAre(1, 2, 3, 4));
    }
  };
  RefuseEach<LoopWorld>(Where::kHere, wake, check);
  RefuseEach<LoopWorld>(Where::kOnAThread, wake, check);
}

TEST_F(EachRefusalOfQtsLoop, OfAPostedFunctionRunsItOrLetsItGo) {
  const auto post = [](LoopWorld& world) {
    world.loop->Post([&world, witness = world.witness] { world.order.push_back(1); });
  };
  const auto check = [](LoopWorld& world, const Met& met) {
    EXPECT_EQ(world.witness.use_count(), met.threw ? 1 : 2);
    world.RunAll();
    EXPECT_EQ(std::count(world.order.begin(), world.order.end(), 1), met.threw ? 0 : 1);
  };
  RefuseEach<LoopWorld>(Where::kHere, post, check);
  RefuseEach<LoopWorld>(Where::kOnAThread, post, check);
}

struct LoopHolder {
  std::shared_ptr<Loop> loop;
};

TEST_F(EachRefusalOfQtsLoop, OfALoopLeavesTheThreadToTheNext) {
  RefuseEach<LoopHolder>([](LoopHolder& holder) { holder.loop = Loop::OfThisThread(); },
                         [](LoopHolder& holder, const Met& met) {
                           EXPECT_EQ(holder.loop == nullptr, met.threw);
                           const auto loop = Loop::OfThisThread();
                           EXPECT_TRUE(met.threw || loop == holder.loop);
                           bool ran = false;
                           loop->Post([&ran] { ran = true; });
                           QCoreApplication::processEvents();
                           EXPECT_TRUE(ran);
                         });
}

// A task that answers "next" whenever it is started.
struct KeptWorld {
  KeptWorld() {
    task->OnChange([this](const auto& /*status*/) { ++changes; });
  }

  std::shared_ptr<vorpc::IClient> Start() {
    links.push_back(std::make_unique<Link>(loop));
    links.back()->server->OnRequest(
        "next", [](const std::string&, const cw::EncodableValue&,
                   std::unique_ptr<vorpc::IReply>&& reply) { reply->SendResult(1); });
    links.back()->server->OnRequest(
        "ping", [this](const std::string&, const cw::EncodableValue&,
                       std::unique_ptr<vorpc::IReply>&& reply) { kept = std::move(reply); });
    links.back()->server->Run();
    return std::move(links.back()->client);
  }
  template <class CallType>
  void Hear(const CallType& heard) {
    ++begun;
    heard.Then([this](const auto& /*outcome*/) { ++ended; });
  }
  void Die() const {
    if (const auto client = links.back()->weak_client.lock()) {
      client->Disconnect(vorpc::Message::Error(-32002, "killed"));
    }
  }
  // Each call has ended, and the next one is answered, perhaps after a pause.
  void ExpectWell() {
    for (int i = 0; i < 10; ++i) {
      loop->Advance(1min);
    }
    EXPECT_EQ(ended, begun);
    const Ending<std::int32_t> next(task->Call(kNext));
    loop->Advance(10s);
    ASSERT_EQ(next.Count(), 1U);
    EXPECT_TRUE(next.Get().HasValue());
    EXPECT_EQ(task->GetStatus().state, tarv::TaskStatus::State::kConnected);
  }

  const std::shared_ptr<TestLoop> loop = std::make_shared<TestLoop>();
  std::vector<std::unique_ptr<Link>> links;
  std::unique_ptr<vorpc::IReply> kept;
  int begun = 0;
  int ended = 0;
  int changes = 0;
  std::optional<tarv::Call<std::int32_t>> call;
  std::unique_ptr<tarv::KeptTask> task = std::make_unique<tarv::KeptTask>(
      [this] { return Start(); }, "words", tarv::KeepPolicy(), loop);
};

TEST(EachRefusalOfAKeptTask, OfACallLeavesNoneOrAWholeOne) {
  const auto act = [](KeptWorld& world) { world.call = world.task->Call(kNext); };
  const auto check = [](KeptWorld& world, const Met& met) {
    if (!met.threw) {
      world.Hear(*world.call);
    }
    world.ExpectWell();
  };
  RefuseEach<KeptWorld>(Where::kHere, act, check);
  RefuseEach<KeptWorld>(Where::kOnAThread, act, check);
}

struct WorldToStart : KeptWorld {
  WorldToStart() { Hear(task->Call(kNext)); }
};

TEST(EachRefusalOfAKeptTask, OfAStartEndsItsCalls) {
  RefuseEach<WorldToStart>([](KeptWorld& world) { world.loop->RunNext(); },
                           [](KeptWorld& world, const Met& met) {
                             EXPECT_FALSE(met.threw);
                             world.ExpectWell();
                           });
}

struct WorldThatRuns : WorldToStart {
  WorldThatRuns() {
    loop->Pump();
    Hear(task->Call(counting::kPing));
    loop->Pump();
  }
};

TEST(EachRefusalOfAKeptTask, OfItsDeathEndsItsCalls) {
  RefuseEach<WorldThatRuns>([](KeptWorld& world) { world.Die(); },
                            [](KeptWorld& world, const Met& /*met*/) {
                              const int before = world.changes;
                              world.ExpectWell();
                              EXPECT_GT(world.changes, before);
                            });
}

TEST(EachRefusalOfAKeptTask, OfANotificationsHandlerLeavesNone) {
  int heard = 0;
  RefuseEach<WorldThatRuns>(
      [&heard](KeptWorld& world) {
        heard = 0;
        world.task->OnNotify("said", [&heard, text = std::string(kLong)](const auto&) { ++heard; });
      },
      [&heard](KeptWorld& world, const Met& met) {
        world.Die();
        world.ExpectWell();
        world.links.back()->server->SendNotify("said", {});
        world.loop->Pump();
        EXPECT_EQ(heard, met.threw ? 0 : 1);
      });
}

}  // namespace
