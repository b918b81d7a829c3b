#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <tarv/calls/loop.h>

#include <QAbstractEventDispatcher>
#include <QCoreApplication>
#include <QEventLoop>
#include <QThread>
#include <QTimerEvent>
#include <algorithm>
#include <functional>
#include <memory>
#include <set>
#include <thread>
#include <vector>

namespace {

using tarv::Loop;
using testing::ElementsAre;
using namespace std::chrono_literals;

int argument_count = 1;
char program_name[] = "calls_tests";
char* arguments[] = {program_name, nullptr};

// Notes how long timers are to run, and keeps none of them: nothing fires by itself.
class TimerNotes final : public QAbstractEventDispatcher {
 public:
  std::vector<int> intervals;
  std::set<int> running;

  bool processEvents(QEventLoop::ProcessEventsFlags) override { return false; }
  bool hasPendingEvents() override { return false; }
  void registerSocketNotifier(QSocketNotifier*) override {}
  void unregisterSocketNotifier(QSocketNotifier*) override {}
  void registerTimer(int number, int interval, Qt::TimerType, QObject* timer) override {
    intervals.push_back(interval);
    running.insert(number);
    owner = timer;
  }
  bool unregisterTimer(int number) override { return running.erase(number) > 0; }
  bool unregisterTimers(QObject*) override { return true; }
  QList<TimerInfo> registeredTimers(QObject*) const override { return {}; }
  int remainingTime(int) override { return 0; }
  void wakeUp() override {}
  void interrupt() override {}
  void flush() override {}

  // As if the latest timer fired now.
  void Fire() const {
    QTimerEvent fired(1);
    QCoreApplication::sendEvent(owner, &fired);
  }

  QObject* owner = nullptr;
};

// Runs `test` on a thread whose timers are only noted.
void WithTimerNotes(const std::function<void(Loop& loop, TimerNotes& notes)>& test) {
  std::thread([&test] {
    auto* const notes = new TimerNotes;  // the thread's, which destroys it
    QThread::currentThread()->setEventDispatcher(notes);
    const auto loop = Loop::OfThisThread();
    test(*loop, *notes);
  }).join();
}

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

TEST_F(QtLoop, IsNewForAThreadThatHasTheNumberOfOneThatEnded) {
  std::vector<std::shared_ptr<Loop>> ended;
  for (int i = 0; i < 20; ++i) {
    std::thread([&ended] {
      const auto loop = Loop::OfThisThread();
      EXPECT_TRUE(loop->IsCurrent());
      EXPECT_EQ(std::count(ended.begin(), ended.end(), loop), 0);
      ended.push_back(loop);
    }).join();
  }
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

TEST_F(QtLoop, WaitsForAFarTimeInPiecesThatATimerHolds) {
  WithTimerNotes([](Loop& loop, TimerNotes& notes) {
    loop.WakeAt(loop.Now() + 24h * 60, [] { FAIL() << "two months early"; });
    QCoreApplication::sendPostedEvents();
    notes.Fire();
    EXPECT_THAT(notes.intervals, ElementsAre(3'600'000, 3'600'000));
  });
}

TEST_F(QtLoop, WaitsOnWhenItsTimerFiresTooEarly) {
  WithTimerNotes([](Loop& loop, TimerNotes& notes) {
    bool ran = false;
    const auto begin = loop.Now();
    loop.WakeAt(begin + 500ms, [&ran] { ran = true; });
    QCoreApplication::sendPostedEvents();
    notes.Fire();
    if (loop.Now() - begin < 500ms) {  // else the machine was too busy to be early
      EXPECT_FALSE(ran);
      ASSERT_EQ(notes.intervals.size(), 2U);
      EXPECT_THAT(notes.intervals[1], testing::AllOf(testing::Gt(0), testing::Le(500)));
    }
    while (!ran) {
      std::this_thread::sleep_for(5ms);
      notes.Fire();
    }
    EXPECT_GE(loop.Now() - begin, 500ms);
  });
}

TEST_F(QtLoop, SetsNoTimerWhenNothingWaits) {
  WithTimerNotes([](Loop& loop, TimerNotes& notes) {
    bool ran = false;
    loop.WakeAt(loop.Now(), [&ran] { ran = true; });
    QCoreApplication::sendPostedEvents();
    EXPECT_EQ(notes.running.size(), 1U);
    notes.Fire();
    EXPECT_TRUE(ran);
    EXPECT_EQ(notes.intervals.size(), 1U);
    EXPECT_TRUE(notes.running.empty());
  });
}

TEST_F(QtLoop, DestroysWhatItDoesNotLiveToRunAlsoAfterItRanSomething) {
  bool ran = false;
  loop_->Post([&ran] { ran = true; });
  RunUntil([&ran] { return ran; });
  const auto witness = std::make_shared<int>();
  loop_->Post([witness] {});
  loop_.reset();
  EXPECT_EQ(witness.use_count(), 1);
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
  const auto witness = std::make_shared<int>();
  loop_->Post([this, &ran, &witness] {
    ran = true;
    loop_.reset();
    EXPECT_EQ(witness.use_count(), 2) << "what runs this is gone";
  });
  loop_->Post([witness] { FAIL() << "the loop is gone"; });
  RunUntil([&ran] { return ran; });
  QCoreApplication::processEvents();
  QCoreApplication::sendPostedEvents(nullptr, QEvent::DeferredDelete);
  EXPECT_EQ(witness.use_count(), 1);
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
  const auto witness = std::make_shared<int>();
  loop_->Post([witness] { FAIL() << "the loop is gone"; });
  std::thread([loop = std::move(loop_)]() mutable { loop.reset(); }).join();
  EXPECT_EQ(witness.use_count(), 2) << "ended on a thread that is not the loop's";
  QCoreApplication::sendPostedEvents(nullptr, QEvent::DeferredDelete);
  EXPECT_EQ(witness.use_count(), 1);
}

TEST_F(QtLoop, LeavesNothingWhenItsThreadHasEndedBeforeIt) {
  const auto witness = std::make_shared<int>();
  std::shared_ptr<Loop> loop;
  std::thread([&loop, &witness] {
    loop = Loop::OfThisThread();
    loop->Post([witness] { FAIL() << "the thread runs no events"; });
  }).join();
  loop.reset();
  EXPECT_EQ(witness.use_count(), 1);
}

}  // namespace
