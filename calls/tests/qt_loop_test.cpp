#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <tarv/calls/loop.h>

#include <QCoreApplication>
#include <QEventLoop>
#include <QThread>
#include <thread>
#include <vector>

namespace {

using tarv::Loop;
using testing::ElementsAre;
using namespace std::chrono_literals;

int argument_count = 1;
char program_name[] = "calls_tests";
char* arguments[] = {program_name, nullptr};

class QtLoop : public testing::Test {
 protected:
  // Runs events until the condition holds; the test's limit ends it otherwise.
  template <class Condition>
  static void RunUntil(Condition condition) {
    while (!condition()) {
      QCoreApplication::processEvents(QEventLoop::WaitForMoreEvents, 100);
    }
  }

  QCoreApplication application_{argument_count, arguments};
  std::shared_ptr<Loop> loop_ = Loop::OfThisThread();
  std::vector<int> order_;
};

TEST_F(QtLoop, IsOneForAThread) {
  EXPECT_EQ(Loop::OfThisThread(), loop_);
  EXPECT_TRUE(loop_->IsCurrent());
  std::thread([this] {
    EXPECT_FALSE(loop_->IsCurrent());
    EXPECT_NE(Loop::OfThisThread(), loop_);
  }).join();
}

TEST_F(QtLoop, RunsWhatIsPostedLaterAndInOrder) {
  loop_->Post([this] {
    order_.push_back(1);
    loop_->Post([this] { order_.push_back(3); });
  });
  loop_->Post([this] { order_.push_back(2); });
  EXPECT_TRUE(order_.empty());
  RunUntil([this] { return order_.size() == 3; });
  EXPECT_THAT(order_, ElementsAre(1, 2, 3));
}

TEST_F(QtLoop, RunsWhatOtherThreadsPost) {
  std::thread other([this] { loop_->Post([this] { order_.push_back(loop_->IsCurrent()); }); });
  RunUntil([this] { return !order_.empty(); });
  other.join();
  EXPECT_THAT(order_, ElementsAre(1));
}

TEST_F(QtLoop, WakesInTheOrderOfTimesAndNotBefore) {
  const auto begin = loop_->Now();
  auto woken = begin;
  loop_->WakeAt(begin + 30ms, [&] {
    order_.push_back(2);
    woken = loop_->Now();
  });
  loop_->WakeAt(begin + 10ms, [this] { order_.push_back(1); });
  loop_->WakeAt(begin - 1s, [this] { order_.push_back(0); });
  EXPECT_TRUE(order_.empty());
  RunUntil([this] { return order_.size() == 3; });
  EXPECT_THAT(order_, ElementsAre(0, 1, 2));
  EXPECT_GE(woken - begin, 30ms);
}

TEST_F(QtLoop, WakesInTheOrderOfSettingAtOneTime) {
  const auto time = loop_->Now() + 5ms;
  for (int i = 0; i < 5; ++i) {
    loop_->WakeAt(time, [this, i] { order_.push_back(i); });
  }
  RunUntil([this] { return order_.size() == 5; });
  EXPECT_THAT(order_, ElementsAre(0, 1, 2, 3, 4));
}

TEST_F(QtLoop, WakesAfterAnotherWakeThatWasSetFromAThread) {
  loop_->WakeAt(loop_->Now() + 1h, [] {});
  std::thread other([this] { loop_->WakeAt(loop_->Now() + 5ms, [this] { order_.push_back(1); }); });
  RunUntil([this] { return !order_.empty(); });
  other.join();
}

TEST_F(QtLoop, DestroysWhatItDoesNotLiveToRun) {
  const auto witness = std::make_shared<int>();
  loop_->Post([witness] {});
  loop_->WakeAt(loop_->Now() + 1h, [witness] {});
  EXPECT_EQ(witness.use_count(), 3);
  loop_.reset();
  EXPECT_EQ(witness.use_count(), 1);
  QCoreApplication::processEvents();
}

TEST_F(QtLoop, MayEndInsideWhatItRuns) {
  bool ran = false;
  loop_->Post([this, &ran] {
    ran = true;
    loop_.reset();
  });
  loop_->Post([] { FAIL() << "the loop is gone"; });
  RunUntil([&ran] { return ran; });
  QCoreApplication::processEvents();
}

TEST_F(QtLoop, MayEndInsideAWake) {
  bool ran = false;
  loop_->WakeAt(loop_->Now(), [this, &ran] {
    ran = true;
    loop_.reset();
  });
  RunUntil([&ran] { return ran; });
}

TEST_F(QtLoop, MayEndOnAnotherThread) {
  std::thread([loop = std::move(loop_)]() mutable { loop.reset(); }).join();
  QCoreApplication::sendPostedEvents(nullptr, QEvent::DeferredDelete);
  SUCCEED() << "the address sanitizer says whether something is left";
}

}  // namespace
