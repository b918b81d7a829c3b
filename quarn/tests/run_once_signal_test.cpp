#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <quarn/run_once_signal.h>

#include <atomic>
#include <functional>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "signal_recorder.h"

namespace {

using testing::ElementsAre;
using testing::IsEmpty;

using IntSignal = quarn::OwnedRunOnceSignal<int>;
using RunOnceSignalTest = SignalRecorder<IntSignal>;

TEST_F(RunOnceSignalTest, CallsEachListenerOnceInTheOrderOfSubscription) {
  for (const std::string name : {"c", "a", "b"}) {
    signal_.Subscribe(Recorder(name));
  }
  signal_.Emit(1);
  EXPECT_THAT(heard_, ElementsAre("c:1", "a:1", "b:1"));
}

TEST_F(RunOnceSignalTest, DoesNothingAtTheSecondEmission) {
  signal_.Subscribe(Recorder("early"));
  signal_.Emit(1);
  signal_.Emit(2);
  EXPECT_THAT(heard_, ElementsAre("early:1"));
  signal_.Subscribe(Recorder("late"));
  EXPECT_THAT(heard_, ElementsAre("early:1", "late:1"));
}

TEST_F(RunOnceSignalTest, DoesNothingWithoutListenersButRemembers) {
  signal_.Emit(1);
  signal_.Subscribe(Recorder("late"));
  EXPECT_THAT(heard_, ElementsAre("late:1"));
}

TEST_F(RunOnceSignalTest, CallsALateSubscriberAtOnceOnItsOwnThread) {
  signal_.Emit(1);
  std::thread::id heard_on;
  std::thread::id subscribed_on;
  std::thread([&] {
    subscribed_on = std::this_thread::get_id();
    signal_.Subscribe(Listen([&heard_on](int) { heard_on = std::this_thread::get_id(); }));
  }).join();
  EXPECT_EQ(heard_on, subscribed_on);
}

TEST_F(RunOnceSignalTest, KeepsNoLateSubscriber) {
  signal_.Emit(1);
  const auto listener = Recorder("late");
  EXPECT_EQ(signal_.Subscribe(listener), 0U);
  EXPECT_EQ(listener.use_count(), 1);
}

TEST_F(RunOnceSignalTest, CallsALateSubscriberOnlyOnceInItsLife) {
  signal_.Emit(1);
  const auto listener = Recorder("late");
  signal_.Subscribe(listener);
  signal_.Subscribe(listener);
  listener->Invoke(5);
  EXPECT_THAT(heard_, ElementsAre("late:1"));
}

TEST_F(RunOnceSignalTest, SubscribesNoNullListener) {
  EXPECT_EQ(signal_.Subscribe(nullptr), 0U);
  signal_.SubscribeWeak(std::weak_ptr<IntListener>());
  signal_.Subscribe(Recorder("a"));
  signal_.Emit(1);
  EXPECT_EQ(signal_.Subscribe(nullptr), 0U);
  EXPECT_THAT(heard_, ElementsAre("a:1"));
}

TEST_F(RunOnceSignalTest, DrawsSubscriptionIdsFromTheProcessCounter) {
  const std::uint64_t before = quarn::details::CounterClient::GenerateId();
  EXPECT_EQ(signal_.Subscribe(Recorder("a")), before + 1);
  EXPECT_EQ(signal_.Subscribe(Recorder("b")), before + 2);
}

TEST_F(RunOnceSignalTest, KeepsListenersAliveUntilItHasFired) {
  auto listener = Recorder("a");
  const std::weak_ptr<IntListener> watched = listener;
  signal_.Subscribe(listener);
  listener.reset();
  EXPECT_FALSE(watched.expired());
  signal_.Emit(1);
  EXPECT_TRUE(watched.expired());
  EXPECT_THAT(heard_, ElementsAre("a:1"));
}

TEST_F(RunOnceSignalTest, ReleasesTheListenersOfAnEmissionThatNeverHappens) {
  const auto listener = Recorder("a");
  {
    IntSignal signal;
    signal.Subscribe(listener);
    EXPECT_EQ(listener.use_count(), 2);
  }
  EXPECT_EQ(listener.use_count(), 1);
  EXPECT_THAT(heard_, IsEmpty());
}

TEST_F(RunOnceSignalTest, CallsWeakListenersAfterTheKeptOnesInOrder) {
  const auto first = Recorder("weak1");
  const auto second = Recorder("weak2");
  signal_.SubscribeWeak(first);
  signal_.SubscribeWeak(second);
  signal_.Subscribe(Recorder("kept"));
  signal_.Emit(1);
  EXPECT_THAT(heard_, ElementsAre("kept:1", "weak1:1", "weak2:1"));
}

TEST_F(RunOnceSignalTest, SkipsWeakListenersThatDied) {
  signal_.SubscribeWeak(Recorder("dead"));
  const auto alive = Recorder("alive");
  signal_.SubscribeWeak(alive);
  EXPECT_EQ(alive.use_count(), 1);
  signal_.Emit(1);
  EXPECT_THAT(heard_, ElementsAre("alive:1"));
}

TEST_F(RunOnceSignalTest, SkipsAWeakListenerThatDiesDuringTheEmission) {
  auto weak = Recorder("weak");
  signal_.SubscribeWeak(weak);
  signal_.Subscribe(Listen([&weak](int) { weak.reset(); }));
  signal_.Emit(1);
  EXPECT_THAT(heard_, IsEmpty());
}

TEST_F(RunOnceSignalTest, CallsALateWeakSubscriberAtOnceWhileItLives) {
  signal_.Emit(1);
  const auto listener = Recorder("late");
  signal_.SubscribeWeak(listener);
  signal_.SubscribeWeak(std::weak_ptr<IntListener>());
  EXPECT_THAT(heard_, ElementsAre("late:1"));
}

TEST_F(RunOnceSignalTest, CallsNoListenerThatUnsubscribed) {
  signal_.Subscribe(Recorder("a"));
  const std::uint64_t id = signal_.Subscribe(Recorder("b"));
  signal_.Unsubscribe(id);
  signal_.Unsubscribe(id);
  signal_.Unsubscribe(0);
  signal_.Emit(1);
  signal_.Unsubscribe(id);
  EXPECT_THAT(heard_, ElementsAre("a:1"));
}

TEST_F(RunOnceSignalTest, CallsASubscriberFromInsideAListenerAtOnce) {
  signal_.Subscribe(Listen([this](int) {
    signal_.Subscribe(Recorder("nested"));
    heard_.emplace_back("outer");
  }));
  signal_.Subscribe(Recorder("next"));
  signal_.Emit(1);
  EXPECT_THAT(heard_, ElementsAre("nested:1", "outer", "next:1"));
}

TEST_F(RunOnceSignalTest, IgnoresAnEmissionFromInsideAListener) {
  signal_.Subscribe(Listen([this](int) { signal_.Emit(2); }));
  signal_.Subscribe(Recorder("a"));
  signal_.Emit(1);
  EXPECT_THAT(heard_, ElementsAre("a:1"));
}

TEST_F(RunOnceSignalTest, LeavesAListenerOfTheEmissionInPlaceWhenItUnsubscribesInside) {
  std::uint64_t last = 0;
  signal_.Subscribe(Listen([this, &last](int) { signal_.Unsubscribe(last); }));
  last = signal_.Subscribe(Recorder("last"));
  signal_.Emit(1);
  EXPECT_THAT(heard_, ElementsAre("last:1"));
}

TEST_F(RunOnceSignalTest, EndsTheEmissionAtAnExceptionAndReleasesTheListeners) {
  const auto unreached = Recorder("unreached");
  signal_.Subscribe(Listen([](int) { throw std::runtime_error("from the listener"); }));
  signal_.Subscribe(unreached);
  EXPECT_THROW(signal_.Emit(1), std::runtime_error);
  EXPECT_THAT(heard_, IsEmpty());
  EXPECT_EQ(unreached.use_count(), 1);
  signal_.Emit(2);
  signal_.Subscribe(Recorder("late"));
  EXPECT_THAT(heard_, ElementsAre("late:1"));
}

TEST_F(RunOnceSignalTest, MayDieInsideItsEmission) {
  std::optional<IntSignal> signal(std::in_place);
  signal->Subscribe(Listen([&signal](int) { signal.reset(); }));
  signal->Subscribe(Recorder("second"));
  signal->Emit(1);
  EXPECT_FALSE(signal.has_value());
  EXPECT_THAT(heard_, ElementsAre("second:1"));
}

TEST(RunOnceSignal, NeedsItsArgumentsNoLongerOnceTheyAreEmitted) {
  struct Owner {
    std::string text = "a text too long to be stored in place";
    quarn::OwnedRunOnceSignal<std::string> signal;
  };
  using TextListener = quarn::CppStyleListener<std::string>;
  auto owner = std::make_unique<Owner>();
  std::string heard;
  owner->signal.Subscribe(
      std::make_shared<TextListener>([&owner](const std::string&) { owner.reset(); }));
  owner->signal.Subscribe(
      std::make_shared<TextListener>([&heard](const std::string& text) { heard = text; }));
  owner->signal.Emit(owner->text);
  EXPECT_EQ(heard, "a text too long to be stored in place");
}

TEST_F(RunOnceSignalTest, LetsALateListenerDropEverythingInsideItsCall) {
  struct IntSlot {
    std::uint64_t size;
    void (*callback)(void* user_data, int value);
    void (*release)(void* user_data);
    void* user_data;
  };
  struct Holder {
    std::optional<IntSignal> signal;
    std::shared_ptr<quarn::CStyleListener<int>> listener;
    int releases = 0;
  } holder;
  const IntSlot slot{sizeof(IntSlot),
                     [](void* user_data, int) {
                       static_cast<Holder*>(user_data)->signal.reset();
                       static_cast<Holder*>(user_data)->listener.reset();
                     },
                     [](void* user_data) { ++static_cast<Holder*>(user_data)->releases; }, &holder};
  holder.signal.emplace();
  holder.signal->Emit(1);
  holder.listener = std::make_shared<quarn::CStyleListener<int>>(&slot);
  holder.signal->Subscribe(holder.listener);
  EXPECT_FALSE(holder.signal.has_value());
  EXPECT_EQ(holder.releases, 1);
}

TEST(RunOnceSignal, CarriesAnOptionalValueThatIsEmpty) {
  quarn::OwnedRunOnceSignal<std::optional<std::string>> signal;
  signal.Emit(std::nullopt);
  bool empty = false;
  signal.Subscribe(std::make_shared<quarn::CppStyleListener<std::optional<std::string>>>(
      [&empty](const std::optional<std::string>& value) { empty = !value.has_value(); }));
  EXPECT_TRUE(empty);
}

TEST(RunOnceSignal, CarriesNoArgumentsOrSeveral) {
  int calls = 0;
  quarn::OwnedRunOnceSignal<> none;
  none.Emit();
  none.Subscribe(std::make_shared<quarn::CppStyleListener<>>([&calls] { ++calls; }));
  quarn::OwnedRunOnceSignal<int, std::string> two;
  std::string heard;
  two.Emit(7, "seven is ");
  two.Subscribe(std::make_shared<quarn::CppStyleListener<int, std::string>>(
      [&heard](int number, const std::string& text) { heard = text + std::to_string(number); }));
  EXPECT_EQ(calls, 1);
  EXPECT_EQ(heard, "seven is 7");
}

TEST(RunOnceSignal, ReachesEverySubscriberOnceWhileSeveralThreadsSubscribeAndEmit) {
  constexpr int kSubscribers = 50;
  for (int round = 0; round < 50; ++round) {
    IntSignal signal;
    std::atomic<int> calls{0};
    std::atomic<int> values{0};
    const auto subscribe = [&] {
      for (int i = 0; i < kSubscribers; ++i) {
        signal.Subscribe(Listen([&calls, &values](int value) {
          ++calls;
          values |= value;
        }));
      }
    };
    std::thread first(subscribe);
    std::thread second(subscribe);
    std::thread one([&signal] { signal.Emit(1); });
    signal.Emit(2);
    first.join();
    second.join();
    one.join();
    ASSERT_EQ(calls, 2 * kSubscribers);
    ASSERT_TRUE(values == 1 || values == 2) << "subscribers heard different outcomes";
  }
}

}  // namespace
