#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <quarn/signal.h>

#include <atomic>
#include <chrono>
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

using IntSignal = quarn::OwnedSignal<int>;
using SignalTest = SignalRecorder<IntSignal>;

TEST_F(SignalTest, DoesNothingWithoutListeners) {
  EXPECT_NO_THROW(signal_.Emit(1));
  EXPECT_THAT(heard_, IsEmpty());
}

TEST_F(SignalTest, CallsListenersInTheOrderOfSubscription) {
  for (const std::string name : {"d", "b", "a", "c"}) {
    signal_.Subscribe(Recorder(name));
  }
  signal_.Emit(1);
  signal_.Emit(2);
  EXPECT_THAT(heard_, ElementsAre("d:1", "b:1", "a:1", "c:1", "d:2", "b:2", "a:2", "c:2"));
}

TEST_F(SignalTest, DrawsSubscriptionIdsFromTheProcessCounter) {
  const std::uint64_t before = quarn::details::CounterClient::GenerateId();
  EXPECT_EQ(signal_.Subscribe(Recorder("a")), before + 1);
  EXPECT_EQ(signal_.Subscribe(Recorder("b")), before + 2);
}

TEST_F(SignalTest, SubscribesNoNullListener) {
  EXPECT_EQ(signal_.Subscribe(nullptr), 0U);
  signal_.SubscribeWeak(std::weak_ptr<IntListener>());
  signal_.Subscribe(Recorder("a"));
  signal_.Emit(1);
  EXPECT_THAT(heard_, ElementsAre("a:1"));
}

TEST_F(SignalTest, TakesAsLongForASubscriptionHoweverManyThereAre) {
  // Copying the earlier ones each time would take minutes.
  constexpr int kSubscriptions = 200'000;
  int calls = 0;
  const auto listener = Listen([&calls](int) { ++calls; });
  const auto begin = std::chrono::steady_clock::now();
  for (int i = 0; i < kSubscriptions; ++i) {
    signal_.Subscribe(listener);
    ASSERT_LT(std::chrono::steady_clock::now() - begin, std::chrono::seconds(20)) << i;
  }
  signal_.Emit(1);
  EXPECT_EQ(calls, kSubscriptions);
}

TEST_F(SignalTest, KeepsItsListenersAliveUntilTheyUnsubscribe) {
  auto listener = Recorder("a");
  const std::weak_ptr<IntListener> watched = listener;
  const std::uint64_t id = signal_.Subscribe(listener);
  listener.reset();
  EXPECT_FALSE(watched.expired());
  signal_.Unsubscribe(id);
  EXPECT_TRUE(watched.expired());
}

TEST_F(SignalTest, ReleasesItsListenersWhenItDies) {
  const auto listener = Recorder("a");
  {
    IntSignal signal;
    signal.Subscribe(listener);
    EXPECT_EQ(listener.use_count(), 2);
  }
  EXPECT_EQ(listener.use_count(), 1);
}

TEST_F(SignalTest, CallsNoListenerThatUnsubscribed) {
  signal_.Subscribe(Recorder("a"));
  const std::uint64_t id = signal_.Subscribe(Recorder("b"));
  signal_.Subscribe(Recorder("c"));
  signal_.Unsubscribe(id);
  signal_.Emit(1);
  EXPECT_THAT(heard_, ElementsAre("a:1", "c:1"));
}

TEST_F(SignalTest, CallsNoListenerThatUnsubscribedThoughSomebodyElseKeepsIt) {
  const auto listener = Recorder("a");
  const std::uint64_t id = signal_.Subscribe(listener);
  signal_.Unsubscribe(id);
  signal_.Emit(1);
  EXPECT_THAT(heard_, IsEmpty());
}

TEST_F(SignalTest, EndsOneOfTwoSubscriptionsOfAListener) {
  const auto listener = Recorder("a");
  signal_.Subscribe(listener);
  signal_.Subscribe(Recorder("b"));
  const std::uint64_t second = signal_.Subscribe(listener);
  signal_.Emit(1);
  signal_.Unsubscribe(second);
  signal_.Emit(2);
  EXPECT_THAT(heard_, ElementsAre("a:1", "b:1", "a:1", "a:2", "b:2"));
}

TEST_F(SignalTest, IgnoresUnknownSubscriptions) {
  const std::uint64_t id = signal_.Subscribe(Recorder("a"));
  signal_.Unsubscribe(0);
  signal_.Unsubscribe(id + 1000);
  signal_.Emit(1);
  signal_.Unsubscribe(id);
  signal_.Unsubscribe(id);
  signal_.Emit(2);
  EXPECT_THAT(heard_, ElementsAre("a:1"));
}

// Counts the copies of a value.
struct Copied {
  Copied() = default;
  Copied(const Copied& other) : copies(other.copies + 1) {}
  Copied(Copied&&) = default;
  Copied& operator=(const Copied&) = delete;
  Copied& operator=(Copied&&) = delete;
  ~Copied() = default;
  int copies = 0;
};

TEST(Signal, GivesEachListenerItsOwnCopyOfTheArguments) {
  quarn::OwnedSignal<std::string> signal;
  const std::string text = "a text too long to be stored in place";
  std::vector<const char*> addresses;
  std::vector<std::string> heard;
  for (int i = 0; i < 2; ++i) {
    signal.Subscribe(std::make_shared<quarn::CppStyleListener<std::string>>(
        [&](const std::string& value) { heard.push_back(value); }));
  }
  signal.Emit(text);
  EXPECT_THAT(heard, ElementsAre(text, text));
  quarn::OwnedSignal<Copied> copies;
  int seen = 0;
  copies.Subscribe(std::make_shared<quarn::CppStyleListener<Copied>>(
      [&seen](const Copied& value) { seen = value.copies; }));
  copies.Emit(Copied());
  EXPECT_GE(seen, 1);
}

TEST(Signal, CarriesAnyNumberOfArguments) {
  int calls = 0;
  quarn::OwnedSignal<> none;
  none.Subscribe(std::make_shared<quarn::CppStyleListener<>>([&calls] { ++calls; }));
  none.Emit();
  quarn::OwnedSignal<int, std::string> two;
  std::string heard;
  two.Subscribe(std::make_shared<quarn::CppStyleListener<int, std::string>>(
      [&heard](int number, const std::string& text) { heard = text + std::to_string(number); }));
  two.Emit(7, "seven is ");
  EXPECT_EQ(calls, 1);
  EXPECT_EQ(heard, "seven is 7");
}

TEST(Signal, TakesListenersAroundCSlots) {
  struct IntSlot {
    std::uint64_t size;
    void (*callback)(void* user_data, int value);
    void (*release)(void* user_data);
    void* user_data;
  };
  int sum = 0;
  const IntSlot slot{sizeof(IntSlot),
                     [](void* user_data, int value) { *static_cast<int*>(user_data) += value; },
                     nullptr, &sum};
  IntSignal signal;
  signal.Subscribe(std::make_shared<quarn::CStyleListener<int>>(&slot));
  signal.Emit(3);
  signal.Emit(4);
  EXPECT_EQ(sum, 7);
}

TEST_F(SignalTest, CallsWeakListenersInTheirTurnWhileTheyLive) {
  auto weak = Recorder("weak");
  signal_.SubscribeWeak(weak);
  EXPECT_EQ(weak.use_count(), 1);
  signal_.Subscribe(Recorder("kept"));
  signal_.Emit(1);
  weak.reset();
  signal_.Emit(2);
  EXPECT_THAT(heard_, ElementsAre("weak:1", "kept:1", "kept:2"));
}

TEST_F(SignalTest, CallsNoWeakListenerThatUnsubscribed) {
  const auto weak = Recorder("weak");
  signal_.Unsubscribe(signal_.SubscribeWeak(weak));
  signal_.Emit(1);
  EXPECT_THAT(heard_, IsEmpty());
}

// Counts the control blocks that are given back: the last weak reference takes its block with it.
template <class T>
struct CountingAllocator {
  using value_type = T;

  explicit CountingAllocator(int& counter) : freed(&counter) {}
  template <class U>
  CountingAllocator(const CountingAllocator<U>& other)  // NOLINT(google-explicit-constructor)
      : freed(other.freed) {}

  T* allocate(std::size_t count) { return std::allocator<T>().allocate(count); }
  void deallocate(T* block, std::size_t count) {
    ++*freed;
    std::allocator<T>().deallocate(block, count);
  }
  bool operator==(const CountingAllocator& other) const { return freed == other.freed; }
  bool operator!=(const CountingAllocator& other) const { return freed != other.freed; }

  int* freed;
};

TEST_F(SignalTest, ForgetsADeadListenerAtTheNextEmission) {
  int freed = 0;
  auto listener = std::allocate_shared<IntListener>(CountingAllocator<IntListener>(freed),
                                                    [this](int) { heard_.emplace_back("dead"); });
  signal_.SubscribeWeak(listener);
  signal_.Subscribe(Recorder("after"));
  listener.reset();
  EXPECT_EQ(freed, 0);
  signal_.Emit(1);
  EXPECT_EQ(freed, 1);
  EXPECT_THAT(heard_, ElementsAre("after:1"));
}

TEST_F(SignalTest, ForgetsAListenerThatUnsubscribesWithoutAnEmission) {
  int freed = 0;
  signal_.Unsubscribe(signal_.Subscribe(
      std::allocate_shared<IntListener>(CountingAllocator<IntListener>(freed), [](int) {})));
  EXPECT_EQ(freed, 1);
}

TEST_F(SignalTest, SkipsAListenerThatDiesDuringTheEmission) {
  std::uint64_t dying = 0;
  signal_.Subscribe(Listen([this, &dying](int) { signal_.Unsubscribe(dying); }));
  auto listener = Recorder("dying");
  const std::weak_ptr<IntListener> watched = listener;
  dying = signal_.Subscribe(listener);
  signal_.Subscribe(Recorder("after"));
  listener.reset();
  signal_.Emit(1);
  EXPECT_TRUE(watched.expired());
  EXPECT_THAT(heard_, ElementsAre("after:1"));
  signal_.Emit(2);
  EXPECT_THAT(heard_, ElementsAre("after:1", "after:2"));
}

TEST_F(SignalTest, LeavesOutAListenerSubscribedDuringTheEmission) {
  signal_.Subscribe(Listen([this](int value) {
    heard_.push_back("first:" + std::to_string(value));
    if (value == 1) {
      signal_.Subscribe(Recorder("late"));
    }
  }));
  signal_.Emit(1);
  EXPECT_THAT(heard_, ElementsAre("first:1"));
  signal_.Emit(2);
  EXPECT_THAT(heard_, ElementsAre("first:1", "first:2", "late:2"));
}

TEST_F(SignalTest, SkipsAListenerUnsubscribedDuringTheEmission) {
  std::uint64_t last = 0;
  signal_.Subscribe(Listen([this, &last](int) { signal_.Unsubscribe(last); }));
  last = signal_.Subscribe(Recorder("last"));
  signal_.Emit(1);
  EXPECT_THAT(heard_, IsEmpty());
}

TEST_F(SignalTest, LetsAListenerUnsubscribeItselfFromInsideItsCall) {
  std::uint64_t own = 0;
  own = signal_.Subscribe(Listen([this, &own](int value) {
    heard_.push_back("own:" + std::to_string(value));
    signal_.Unsubscribe(own);
    heard_.emplace_back("still whole");
  }));
  signal_.Emit(1);
  signal_.Emit(2);
  EXPECT_THAT(heard_, ElementsAre("own:1", "still whole"));
}

TEST_F(SignalTest, LetsAListenerEmitFromInsideItsCall) {
  signal_.Subscribe(Listen([this](int value) {
    if (value > 0) {
      signal_.Emit(value - 1);
    }
  }));
  signal_.Subscribe(Recorder("a"));
  signal_.Emit(2);
  EXPECT_THAT(heard_, ElementsAre("a:0", "a:1", "a:2"));
}

TEST_F(SignalTest, EndsTheEmissionAtAnException) {
  signal_.Subscribe(Recorder("before"));
  const std::uint64_t id =
      signal_.Subscribe(Listen([](int) { throw std::runtime_error("from the listener"); }));
  signal_.Subscribe(Recorder("after"));
  EXPECT_THROW(signal_.Emit(1), std::runtime_error);
  EXPECT_THAT(heard_, ElementsAre("before:1"));
  signal_.Unsubscribe(id);
  signal_.Emit(2);
  EXPECT_THAT(heard_, ElementsAre("before:1", "before:2", "after:2"));
}

TEST_F(SignalTest, MayDieInsideAnEmission) {
  std::optional<IntSignal> signal(std::in_place);
  signal->Subscribe(Listen([&signal](int) { signal.reset(); }));
  signal->Subscribe(Recorder("owned by the signal alone"));
  const auto kept = Recorder("kept");
  signal->Subscribe(kept);
  signal->Emit(1);
  EXPECT_FALSE(signal.has_value());
  EXPECT_THAT(heard_, ElementsAre("kept:1"));
}

TEST(Signal, NeedsItsArgumentsNoLongerOnceTheyAreEmitted) {
  struct Owner {
    std::string text = "a text too long to be stored in place";
    quarn::OwnedSignal<std::string> signal;
  };
  auto owner = std::make_unique<Owner>();
  std::string heard;
  const auto second = std::make_shared<quarn::CppStyleListener<std::string>>(
      [&heard](const std::string& value) { heard = value; });
  owner->signal.Subscribe(std::make_shared<quarn::CppStyleListener<std::string>>(
      [&owner](const std::string&) { owner.reset(); }));
  owner->signal.Subscribe(second);
  owner->signal.Emit(owner->text);
  EXPECT_EQ(heard, "a text too long to be stored in place");
}

TEST(Signal, DestroysAListenerOutsideItsLock) {
  IntSignal signal;
  // The deleter runs where the last reference goes; it would deadlock under the lock.
  struct Resubscriber {
    explicit Resubscriber(IntSignal& target) : signal(target) {}
    Resubscriber(const Resubscriber&) = delete;
    Resubscriber& operator=(const Resubscriber&) = delete;
    ~Resubscriber() {
      signal.Subscribe(Listen([](int) {}));
    }
    IntSignal& signal;
  };
  auto listener = Listen([held = std::make_shared<Resubscriber>(signal)](int) {});
  const std::uint64_t id = signal.Subscribe(listener);
  listener.reset();
  EXPECT_NO_THROW(signal.Unsubscribe(id));
}

TEST(Signal, ServesSubscribersAndEmittersOnSeveralThreads) {
  IntSignal signal;
  std::atomic<int> steady{0};
  signal.Subscribe(Listen([&steady](int) { ++steady; }));
  std::atomic<int> passing{0};
  std::vector<std::thread> threads;
  for (int i = 0; i < 2; ++i) {
    threads.emplace_back([&] {
      for (int round = 0; round < 500; ++round) {
        signal.Emit(1);
      }
    });
    threads.emplace_back([&] {
      for (int round = 0; round < 500; ++round) {
        signal.Unsubscribe(signal.Subscribe(Listen([&passing](int) { ++passing; })));
      }
    });
  }
  for (auto& thread : threads) {
    thread.join();
  }
  EXPECT_EQ(steady, 1000);
  const int heard = passing;
  signal.Emit(1);
  EXPECT_EQ(passing, heard);
}

}  // namespace
