#include <gmock/gmock.h>
#include <tarv/testing/manual_loop.h>

#include <chrono>
#include <stdexcept>
#include <thread>
#include <vector>

namespace {

using tarv::testing::ManualLoop;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using namespace std::chrono_literals;

TEST(ManualLoop, RunsNothingBeforeItIsPumped) {
  ManualLoop loop;
  int runs = 0;
  loop.Post([&runs] { ++runs; });
  EXPECT_EQ(runs, 0);
  loop.Pump();
  EXPECT_EQ(runs, 1);
  loop.Pump();
  EXPECT_EQ(runs, 1);
}

TEST(ManualLoop, RunsWhatIsPostedInOrderAndAlsoWhatThatPosts) {
  ManualLoop loop;
  std::vector<int> order;
  loop.Post([&] {
    order.push_back(1);
    loop.Post([&order] { order.push_back(3); });
  });
  loop.Post([&order] { order.push_back(2); });
  loop.Pump();
  EXPECT_THAT(order, ElementsAre(1, 2, 3));
}

TEST(ManualLoop, WakesInTheOrderOfTimeEachAtItsOwn) {
  ManualLoop loop;
  const auto start = loop.Now();
  std::vector<std::pair<int, std::chrono::seconds>> wakes;
  const auto wake_after = [&](int number, std::chrono::seconds after) {
    loop.WakeAt(start + after, [&wakes, &loop, number, start] {
      wakes.emplace_back(number,
                         std::chrono::duration_cast<std::chrono::seconds>(loop.Now() - start));
    });
  };
  wake_after(3, 30s);
  wake_after(1, 10s);
  wake_after(2, 10s);
  loop.Advance(9s);
  EXPECT_THAT(wakes, ElementsAre());
  EXPECT_EQ(loop.CountWaiting(), 3U);
  loop.Advance(60s);
  EXPECT_THAT(wakes, ElementsAre(std::pair(1, 10s), std::pair(2, 10s), std::pair(3, 30s)));
  EXPECT_EQ(loop.Now(), start + 69s);
  EXPECT_EQ(loop.CountWaiting(), 0U);
}

TEST(ManualLoop, WakesAlsoWhatIsSetWhileTimePasses) {
  ManualLoop loop;
  int ticks = 0;
  std::function<void()> tick = [&] {
    ++ticks;
    loop.WakeAt(loop.Now() + 1s, tick);
  };
  loop.WakeAt(loop.Now() + 1s, tick);
  loop.Advance(10s);
  EXPECT_EQ(ticks, 10);
}

TEST(ManualLoop, DoesNotGoBackInTime) {
  ManualLoop loop;
  EXPECT_THROW(loop.Advance(-1s), std::invalid_argument);
}

TEST(ManualLoop, GivesUpOnWhatNeverComesToRest) {
  ManualLoop loop;
  std::function<void()> again = [&] { loop.Post(again); };
  loop.Post(again);
  try {
    loop.Pump();
    FAIL() << "it came to rest";
  } catch (const std::runtime_error& error) {
    EXPECT_THAT(error.what(), HasSubstr("does not come to rest"));
  }
}

TEST(ManualLoop, LetsAnExceptionOutAndKeepsTheRest) {
  ManualLoop loop;
  bool ran = false;
  loop.Post([] { throw std::runtime_error("a tired function"); });
  loop.Post([&ran] { ran = true; });
  EXPECT_THROW(loop.Pump(), std::runtime_error);
  EXPECT_FALSE(ran);
  loop.Pump();
  EXPECT_TRUE(ran);
}

TEST(ManualLoop, WaitsForOtherThreadsWithALimit) {
  ManualLoop loop;
  bool ran = false;
  std::thread poster([&] {
    EXPECT_FALSE(loop.IsCurrent());
    loop.Post([&] { ran = loop.IsCurrent(); });
  });
  EXPECT_TRUE(loop.PumpUntil([&ran] { return ran; }));
  poster.join();
  EXPECT_FALSE(loop.PumpUntil([] { return false; }, 10ms));
}

}  // namespace
