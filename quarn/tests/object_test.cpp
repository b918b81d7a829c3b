#include <gtest/gtest.h>
#include <quarn/object.h>

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <future>
#include <limits>
#include <memory>
#include <set>
#include <stdexcept>
#include <thread>
#include <type_traits>
#include <utility>
#include <vector>

#include "support/capture.h"
#include "support/log_line.h"

struct ThingRef;
struct OtherRef;

namespace {

using quarn::IDispatcher;
using tarv::test::IsLogLine;
using tarv::test::StdoutOf;

constexpr std::uint64_t kAlive = 0xA11FEA11FE;

// An object that calls `on_destroy` first thing when it dies.
class Thing : public quarn::Object<Thing, ThingRef*> {
  struct PrivateTag {
    explicit PrivateTag() = default;
  };

 public:
  Thing(const std::shared_ptr<IDispatcher>& dispatcher, std::function<void()> on_destroy,
        PrivateTag)
      : Object(dispatcher), on_destroy_(std::move(on_destroy)) {}
  ~Thing() override {
    if (on_destroy_) {
      on_destroy_();
    }
    state_ = 0;
  }

  static std::shared_ptr<Thing> Create(const std::shared_ptr<IDispatcher>& dispatcher = nullptr,
                                       std::function<void()> on_destroy = nullptr) {
    return Object::Create(dispatcher, std::move(on_destroy), PrivateTag());
  }

  using Object::Unregister;

  std::uint64_t GetState() const { return state_; }

 private:
  std::function<void()> on_destroy_;
  std::atomic<std::uint64_t> state_ = kAlive;
};

// An object of another type, whose constructor may throw.
class Other : public quarn::Object<Other, OtherRef*> {
  struct PrivateTag {
    explicit PrivateTag() = default;
  };

 public:
  Other(bool fail, std::uint64_t* id, PrivateTag) : Object(IDispatcher::CreateEmpty()) {
    if (id != nullptr) {
      *id = GetId();
    }
    if (fail) {
      throw std::runtime_error("refused");
    }
  }

  static std::shared_ptr<Other> Create(bool fail = false, std::uint64_t* id = nullptr) {
    return Object::Create(fail, id, PrivateTag());
  }
};

// Runs tasks at once and remembers their parameters.
class RunningDispatcher : public IDispatcher {
 public:
  void Invoke(const std::function<void()>& task, unsigned int param) override {
    params.push_back(param);
    task();
  }

  std::vector<unsigned int> params;
};

template <class Ref = ThingRef>
Ref* RefOf(std::uint64_t id) {
  return reinterpret_cast<Ref*>(id);  // NOLINT(performance-no-int-to-ptr): that is what handles are
}

TEST(CounterClient, RisesByOne) {
  const std::uint64_t first = quarn::details::CounterClient::GenerateId();
  EXPECT_EQ(quarn::details::CounterClient::GenerateId(), first + 1);
  EXPECT_EQ(quarn::details::CounterClient::GenerateId(), first + 2);
}

TEST(CounterClient, NeverGivesOneIdTwiceToSeveralThreads) {
  constexpr std::size_t kThreads = 4;
  constexpr std::size_t kIds = 5000;
  std::vector<std::vector<std::uint64_t>> ids(kThreads);
  std::vector<std::thread> threads;
  threads.reserve(kThreads);
  for (auto& own : ids) {
    threads.emplace_back([&own] {
      for (std::size_t i = 0; i < kIds; ++i) {
        own.push_back(quarn::details::CounterClient::GenerateId());
      }
    });
  }
  std::set<std::uint64_t> all;
  for (std::size_t i = 0; i < kThreads; ++i) {
    threads[i].join();
    all.insert(ids[i].begin(), ids[i].end());
  }
  EXPECT_EQ(all.size(), kThreads * kIds);
  EXPECT_EQ(*all.rbegin() - *all.begin() + 1, kThreads * kIds);
}

TEST(Object, CarriesItsIdAsItsHandle) {
  const auto thing = Thing::Create();
  EXPECT_NE(thing->GetId(), 0U);
  EXPECT_EQ(reinterpret_cast<std::uint64_t>(thing->GetRef()), thing->GetId());
}

TEST(Object, IsFoundByItsHandle) {
  const auto thing = Thing::Create();
  EXPECT_EQ(Thing::FromRef(thing->GetRef()), thing);
  EXPECT_EQ(thing->shared_from_this(), thing);
}

TEST(Object, IsNotFoundByANullHandle) {
  const auto thing = Thing::Create();
  EXPECT_EQ(StdoutOf([] { EXPECT_EQ(Thing::FromRef(nullptr), nullptr); }), "");
}

TEST(Object, IsNotFoundByANumberThatWasNeverIssued) {
  const auto thing = Thing::Create();
  const std::string log = StdoutOf([&thing] {
    EXPECT_EQ(Thing::FromRef(RefOf(thing->GetId() + 1000)), nullptr);
    EXPECT_EQ(Thing::FromRef(RefOf(std::numeric_limits<std::uint64_t>::max())), nullptr);
  });
  EXPECT_EQ(log, "");
}

TEST(Object, IsNotFoundOnceItIsDestroyed) {
  auto thing = Thing::Create();
  ThingRef* const ref = thing->GetRef();
  thing.reset();
  EXPECT_EQ(StdoutOf([ref] { EXPECT_EQ(Thing::FromRef(ref), nullptr); }), "");
}

template <class T, class = void>
constexpr bool kAnybodyUnregisters = false;
template <class T>
constexpr bool kAnybodyUnregisters<T, std::void_t<decltype(std::declval<T&>().Unregister())>> =
    true;

TEST(Object, IsUnregisteredByItselfAlone) {
  EXPECT_FALSE(kAnybodyUnregisters<Other>);
  EXPECT_TRUE(kAnybodyUnregisters<Thing>);  // which says so
}

TEST(Object, IsNotFoundOnceItIsUnregisteredThoughItLivesOn) {
  const auto thing = Thing::Create();
  thing->Unregister();
  EXPECT_EQ(Thing::FromRef(thing->GetRef()), nullptr);
  thing->Unregister();
  EXPECT_EQ(thing->GetState(), kAlive);
}

TEST(Object, LivesAsLongAsAResolvedHandleIsHeld) {
  auto thing = Thing::Create();
  const auto resolved = Thing::FromRef(thing->GetRef());
  thing.reset();
  EXPECT_EQ(Thing::FromRef(resolved->GetRef()), resolved);
}

TEST(Object, SharesNoHandleValueWithAnotherType) {
  const auto thing = Thing::Create();
  const auto other = Other::Create();
  EXPECT_NE(thing->GetId(), other->GetId());
  EXPECT_EQ(Thing::FromRef(RefOf(other->GetId())), nullptr);
  EXPECT_EQ(Other::FromRef(RefOf<OtherRef>(thing->GetId())), nullptr);
}

TEST(Object, LeavesNothingRegisteredWhenItsConstructorThrows) {
  std::uint64_t id = 0;
  EXPECT_THROW(Other::Create(true, &id), std::runtime_error);
  EXPECT_NE(id, 0U);
  EXPECT_EQ(Other::FromRef(RefOf<OtherRef>(id)), nullptr);
}

TEST(Object, IsNotFoundFromInsideItsOwnDestructor) {
  ThingRef* ref = nullptr;
  bool found = true;
  auto thing = Thing::Create(nullptr, [&] { found = Thing::FromRef(ref) != nullptr; });
  ref = thing->GetRef();
  thing.reset();
  EXPECT_FALSE(found);
}

TEST(Object, IsNotFoundWhileAnotherThreadIsInsideItsDestructor) {
  std::promise<void> dying;
  std::promise<void> may_die;
  auto thing = Thing::Create(nullptr, [&] {
    dying.set_value();
    may_die.get_future().wait();
  });
  ThingRef* const ref = thing->GetRef();
  std::thread destroyer([held = std::move(thing)]() mutable { held.reset(); });
  dying.get_future().wait();
  EXPECT_EQ(Thing::FromRef(ref), nullptr);
  may_die.set_value();
  destroyer.join();
  EXPECT_EQ(Thing::FromRef(ref), nullptr);
}

TEST(Object, IsFoundWholeOrNotAtAllWhileAnotherThreadDropsIt) {
  for (int round = 0; round < 500; ++round) {
    auto thing = Thing::Create();
    ThingRef* const ref = thing->GetRef();
    std::promise<void> ready;
    std::thread dropper([held = std::move(thing), &ready]() mutable {
      ready.set_value();
      held.reset();
    });
    ready.get_future().wait();
    while (const auto found = Thing::FromRef(ref)) {
      ASSERT_EQ(found->GetState(), kAlive);
    }
    dropper.join();
    ASSERT_EQ(Thing::FromRef(ref), nullptr);
  }
}

TEST(Object, IsCreatedResolvedAndDestroyedOnSeveralThreadsAtOnce) {
  std::atomic<int> wrong{0};
  std::vector<std::thread> threads;
  threads.reserve(4);
  for (int i = 0; i < 4; ++i) {
    threads.emplace_back([&wrong] {
      for (int round = 0; round < 500; ++round) {
        auto thing = Thing::Create();
        wrong += Thing::FromRef(thing->GetRef()) == thing ? 0 : 1;
        ThingRef* const ref = thing->GetRef();
        thing.reset();
        wrong += Thing::FromRef(ref) == nullptr ? 0 : 1;
      }
    });
  }
  for (auto& thread : threads) {
    thread.join();
  }
  EXPECT_EQ(wrong, 0);
}

TEST(ObjectInvoke, HandsTaskAndParameterToTheDispatcher) {
  const auto dispatcher = std::make_shared<RunningDispatcher>();
  const auto thing = Thing::Create(dispatcher);
  int runs = 0;
  thing->Invoke([&runs] { ++runs; }, 7);
  thing->Invoke([&runs] { ++runs; }, std::numeric_limits<unsigned int>::max());
  EXPECT_EQ(runs, 2);
  EXPECT_EQ(dispatcher->params,
            (std::vector<unsigned int>{7, std::numeric_limits<unsigned int>::max()}));
}

TEST(ObjectInvoke, DoesNothingWithoutAWordAfterReset) {
  const auto dispatcher = std::make_shared<RunningDispatcher>();
  const auto thing = Thing::Create(dispatcher);
  thing->ResetDispatcher();
  EXPECT_EQ(StdoutOf([&thing] { thing->Invoke([] { FAIL() << "the task ran"; }, 0); }), "");
  EXPECT_TRUE(dispatcher->params.empty());
}

TEST(ObjectInvoke, DoesNothingWithoutAWordWhenThereNeverWasADispatcher) {
  const auto thing = Thing::Create(nullptr);
  EXPECT_EQ(StdoutOf([&thing] { thing->Invoke([] { FAIL() << "the task ran"; }, 0); }), "");
}

TEST(ObjectInvoke, WarnsOncePerCallWithTheEmptyDispatcher) {
  const auto thing = Thing::Create(IDispatcher::CreateEmpty());
  bool ran = false;
  for (int i = 0; i < 2; ++i) {
    EXPECT_THAT(StdoutOf([&] { thing->Invoke([&ran] { ran = true; }, 0); }),
                IsLogLine("warn", "EmptyDispatcher::Invoke(): no-op method invoked."));
  }
  EXPECT_FALSE(ran);
}

TEST(ObjectInvoke, LetsATaskInvokeAndResetOnTheSameObject) {
  const auto thing = Thing::Create(std::make_shared<RunningDispatcher>());
  std::vector<int> steps;
  thing->Invoke(
      [&] {
        thing->Invoke([&steps] { steps.push_back(1); }, 0);
        thing->ResetDispatcher();
        thing->Invoke([&steps] { steps.push_back(2); }, 0);
        steps.push_back(3);
      },
      0);
  EXPECT_EQ(steps, (std::vector<int>{1, 3}));
}

TEST(ObjectInvoke, KeepsTheDispatcherForTheCallThatResetsIt) {
  auto dispatcher = std::make_shared<RunningDispatcher>();
  const std::weak_ptr<RunningDispatcher> watched = dispatcher;
  const auto thing = Thing::Create(std::exchange(dispatcher, nullptr));
  bool alive_inside = false;
  thing->Invoke(
      [&] {
        thing->ResetDispatcher();
        alive_inside = !watched.expired();
      },
      0);
  EXPECT_TRUE(alive_inside);
  EXPECT_TRUE(watched.expired());
}

TEST(ObjectInvoke, PassesOnWhatATaskThrows) {
  const auto thing = Thing::Create(std::make_shared<RunningDispatcher>());
  EXPECT_THROW(thing->Invoke([] { throw std::runtime_error("from the task"); }, 0),
               std::runtime_error);
  bool ran = false;
  thing->Invoke([&ran] { ran = true; }, 0);
  EXPECT_TRUE(ran);
}

TEST(ObjectInvoke, LetsATaskDropTheLastReferenceToItsObject) {
  auto thing = Thing::Create(std::make_shared<RunningDispatcher>());
  ThingRef* const ref = thing->GetRef();
  thing->Invoke([&thing] { thing.reset(); }, 0);
  EXPECT_EQ(Thing::FromRef(ref), nullptr);
}

TEST(Object, ReleasesItsDispatcherWhenItIsResetOrDies) {
  const auto dispatcher = std::make_shared<RunningDispatcher>();
  auto thing = Thing::Create(dispatcher);
  EXPECT_EQ(dispatcher.use_count(), 2);
  thing->ResetDispatcher();
  EXPECT_EQ(dispatcher.use_count(), 1);
  thing->ResetDispatcher();
  thing = Thing::Create(dispatcher);
  thing.reset();
  EXPECT_EQ(dispatcher.use_count(), 1);
}

class CountingDispatcher : public IDispatcher {
 public:
  void Invoke(const std::function<void()>& /*task*/, unsigned int /*param*/) override { ++calls; }

  std::atomic<int> calls{0};
};

TEST(ObjectInvoke, RacesWithResetSafely) {
  for (int round = 0; round < 100; ++round) {
    const auto dispatcher = std::make_shared<CountingDispatcher>();
    const auto thing = Thing::Create(dispatcher);
    std::thread resetter([&thing] { thing->ResetDispatcher(); });
    for (int i = 0; i < 50; ++i) {
      thing->Invoke([] {}, 0);
    }
    resetter.join();
    const int calls = dispatcher->calls;
    thing->Invoke([] {}, 0);
    ASSERT_EQ(dispatcher->calls, calls);
    ASSERT_EQ(dispatcher.use_count(), 1);
  }
}

// Dies in static destruction, after the registry was emptied: its own destructor is registered
// first, before anything has made the registry.
struct DiesLate {
  ~DiesLate() {
    if (thing) {
      const bool found = Thing::FromRef(thing->GetRef()) != nullptr;
      thing.reset();
      std::fputs(found ? "still found\n" : "gone from the registry, then destroyed\n", stderr);
    }
  }
  std::shared_ptr<Thing> thing;
};

DiesLate dies_late;

TEST(ObjectDeathTest, OutlivesItsRegistrySafely) {
  EXPECT_EXIT(
      {
        dies_late.thing = Thing::Create(IDispatcher::CreateEmpty());
        std::exit(dies_late.thing == Thing::FromRef(dies_late.thing->GetRef()) ? 0 : 1);
      },
      testing::ExitedWithCode(0), "^gone from the registry, then destroyed\n");
}

struct CreatesLate {
  bool active = false;
  ~CreatesLate() {
    if (active) {
      const auto thing = Thing::Create();
      const bool found = Thing::FromRef(thing->GetRef()) == thing;
      std::fputs(found ? "created and found\n" : "lost\n", stderr);
    }
  }
};

CreatesLate creates_late;

TEST(ObjectDeathTest, MayBeCreatedWhileTheProcessExits) {
  EXPECT_EXIT(
      {
        creates_late.active = true;
        Thing::Create();
        std::exit(0);
      },
      testing::ExitedWithCode(0), "^created and found\n");
}

}  // namespace
