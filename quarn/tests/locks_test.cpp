// A program of its own: it counts the locks that the library takes, and makes taking them fail.
#include <gtest/gtest.h>
#include <pthread.h>
#include <quarn/object.h>
#include <quarn/resources_cache.h>
#include <quarn/run_once_signal.h>
#include <quarn/signal.h>

#include <cerrno>
#include <csignal>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <system_error>
#include <utility>
#include <vector>

namespace {

int shared_locks = 0;
int exclusive_locks = 0;
int mutex_locks = 0;
// How many reader/writer locks are held.
int held = 0;
// How many attempts to lock shared fail for a while; what the next attempts of any kind return, and
// how many of them.
int busy_attempts = 0;
int failure = 0;
int failing_attempts = 0;

bool Fails() {
  if (failure == 0 || failing_attempts == 0) {
    return false;
  }
  --failing_attempts;
  return true;
}

}  // namespace

// NOLINTBEGIN(bugprone-reserved-identifier): the linker wants these names
extern "C" {

int __real_pthread_rwlock_rdlock(pthread_rwlock_t* lock);
int __real_pthread_rwlock_wrlock(pthread_rwlock_t* lock);
int __real_pthread_rwlock_unlock(pthread_rwlock_t* lock);
int __real_pthread_mutex_lock(pthread_mutex_t* mutex);

int __wrap_pthread_rwlock_rdlock(pthread_rwlock_t* lock) {
  ++shared_locks;
  if (busy_attempts > 0) {
    --busy_attempts;
    return EAGAIN;
  }
  if (Fails()) {
    return failure;
  }
  ++held;
  return __real_pthread_rwlock_rdlock(lock);
}

int __wrap_pthread_rwlock_wrlock(pthread_rwlock_t* lock) {
  ++exclusive_locks;
  if (Fails()) {
    return failure;
  }
  ++held;
  return __real_pthread_rwlock_wrlock(lock);
}

int __wrap_pthread_rwlock_unlock(pthread_rwlock_t* lock) {
  --held;
  return __real_pthread_rwlock_unlock(lock);
}

int __wrap_pthread_mutex_lock(pthread_mutex_t* mutex) {
  ++mutex_locks;
  return Fails() ? failure : __real_pthread_mutex_lock(mutex);
}

}  // extern "C"
// NOLINTEND(bugprone-reserved-identifier)

struct ThingRef;

namespace {

using quarn::IDispatcher;

class Thing : public quarn::Object<Thing, ThingRef*> {
  struct PrivateTag {
    explicit PrivateTag() = default;
  };

 public:
  Thing(const std::shared_ptr<IDispatcher>& dispatcher, PrivateTag) : Object(dispatcher) {}
  static std::shared_ptr<Thing> Create(const std::shared_ptr<IDispatcher>& dispatcher) {
    return Object::Create(dispatcher, PrivateTag());
  }
};

class RunningDispatcher : public IDispatcher {
 public:
  void Invoke(const std::function<void()>& task, unsigned int /*param*/) override { task(); }
};

using IntListener = quarn::CppStyleListener<int>;

class Locks : public testing::Test {
 protected:
  void SetUp() override {
    thing_ = Thing::Create(std::make_shared<RunningDispatcher>());
    Forget();
  }
  void TearDown() override { failure = 0; }

  // The next `attempts` to lock anything fail.
  static void FailWith(int error, int attempts) {
    failure = error;
    failing_attempts = attempts;
  }

  static void Forget() {
    shared_locks = 0;
    exclusive_locks = 0;
    mutex_locks = 0;
  }

  // Whether `action` raises the error of a lock that would deadlock.
  template <class Action>
  static bool Deadlocks(Action&& action) {
    FailWith(EDEADLK, 1);
    std::error_code code;
    try {
      action();
    } catch (const std::system_error& error) {
      code = error.code();
    }
    failure = 0;
    return code == std::errc::resource_deadlock_would_occur;
  }

  quarn::OwnedSignal<int> signal_;
  std::shared_ptr<Thing> thing_;
  int heard_ = 0;
  std::shared_ptr<IntListener> listener_ =
      std::make_shared<IntListener>([this](int value) { heard_ += value; });
};

TEST_F(Locks, EmittingASignalWithoutListenersTakesNoExclusiveLock) {
  signal_.Emit(1);
  EXPECT_EQ(exclusive_locks, 0);
  EXPECT_EQ(shared_locks, 1);
}

TEST_F(Locks, EmittingToLiveListenersTakesNoExclusiveLock) {
  signal_.Subscribe(listener_);
  EXPECT_EQ(exclusive_locks, 1);
  Forget();
  signal_.Emit(1);
  EXPECT_EQ(heard_, 1);
  EXPECT_EQ(exclusive_locks, 0);
}

TEST_F(Locks, AnEmissionForgetsDeadListenersOnceUnderAnExclusiveLock) {
  signal_.SubscribeWeak(std::make_shared<IntListener>([](int) {}));
  signal_.SubscribeWeak(std::make_shared<IntListener>([](int) {}));
  Forget();
  signal_.Emit(1);
  EXPECT_EQ(exclusive_locks, 1);
  Forget();
  signal_.Emit(1);
  EXPECT_EQ(exclusive_locks, 0);
}

TEST_F(Locks, ResolvingAHandleTakesNoExclusiveLock) {
  EXPECT_EQ(Thing::FromRef(thing_->GetRef()), thing_);
  EXPECT_EQ(shared_locks, 1);
  EXPECT_EQ(exclusive_locks, 0);
}

TEST_F(Locks, InvokingTakesNoExclusiveLock) {
  bool ran = false;
  thing_->Invoke([&ran] { ran = true; }, 0);
  EXPECT_TRUE(ran);
  EXPECT_EQ(shared_locks, 1);
  EXPECT_EQ(exclusive_locks, 0);
}

TEST_F(Locks, InvokingAListenerTakesOneSharedLock) {
  listener_->Invoke(1);
  EXPECT_EQ(heard_, 1);
  EXPECT_EQ(shared_locks, 1);
  EXPECT_EQ(exclusive_locks, 0);
}

TEST_F(Locks, InvokingAListenerOnceTakesAnExclusiveLock) {
  listener_->InvokeOnce(1);
  EXPECT_EQ(heard_, 1);
  EXPECT_EQ(shared_locks, 0);
  EXPECT_EQ(exclusive_locks, 1);
}

TEST_F(Locks, DrawingAnIdTakesNoLock) {
  quarn::details::CounterClient::GenerateId();
  EXPECT_EQ(shared_locks + exclusive_locks, 0);
}

TEST_F(Locks, ASharedLockThatIsBusyIsTriedAgain) {
  signal_.Subscribe(listener_);
  busy_attempts = 3;
  EXPECT_EQ(Thing::FromRef(thing_->GetRef()), thing_);
  EXPECT_EQ(busy_attempts, 0);
  busy_attempts = 3;
  bool ran = false;
  thing_->Invoke([&ran] { ran = true; }, 0);
  EXPECT_TRUE(ran);
  busy_attempts = 3;
  signal_.Emit(1);
  EXPECT_EQ(heard_, 1);
  busy_attempts = 3;
  listener_->Invoke(1);
  EXPECT_EQ(heard_, 2);
  EXPECT_EQ(busy_attempts, 0);
}

TEST_F(Locks, ALockThatWouldDeadlockRaisesASystemError) {
  EXPECT_TRUE(Deadlocks([this] { Thing::FromRef(thing_->GetRef()); }));
  EXPECT_TRUE(Deadlocks([this] { thing_->Invoke([] {}, 0); }));
  EXPECT_TRUE(Deadlocks([this] { thing_->ResetDispatcher(); }));
  EXPECT_TRUE(Deadlocks([this] { signal_.Emit(1); }));
  EXPECT_TRUE(Deadlocks([this] { signal_.Subscribe(listener_); }));
  EXPECT_TRUE(Deadlocks([this] { listener_->Invoke(1); }));
  EXPECT_TRUE(Deadlocks([this] { listener_->InvokeOnce(1); }));
  listener_->Invoke(1);
  EXPECT_EQ(heard_, 1);
}

TEST_F(Locks, UnsubscribingAndForgettingTheDeadRaiseASystemErrorToo) {
  const auto id = signal_.Subscribe(listener_);
  EXPECT_TRUE(Deadlocks([this, id] { signal_.Unsubscribe(id); }));
  signal_.Emit(1);
  EXPECT_EQ(heard_, 1);
}

TEST_F(Locks, ADyingObjectLeavesTheRegistryUnderAnExclusiveLock) {
  thing_.reset();
  EXPECT_GE(exclusive_locks, 1);
}

TEST_F(Locks, AnObjectWhoseRegistrationWouldDeadlockIsNotMadeAndRaisesASystemError) {
  const auto dispatcher = std::make_shared<RunningDispatcher>();
  EXPECT_TRUE(Deadlocks([&dispatcher] { Thing::Create(dispatcher); }));
  EXPECT_EQ(dispatcher.use_count(), 1);
}

// Writes down, as it dies, whether a lock is held.
class DyingDispatcher : public RunningDispatcher {
 public:
  explicit DyingDispatcher(int& held_at_death) : held_at_death_(held_at_death) {}
  ~DyingDispatcher() override { held_at_death_ = held; }
  DyingDispatcher(const DyingDispatcher&) = delete;
  DyingDispatcher& operator=(const DyingDispatcher&) = delete;

 private:
  int& held_at_death_;
};

TEST_F(Locks, AnObjectReleasesItsDispatcherWhileItsLockIsHeld) {
  int held_at_death = -1;
  const auto thing = Thing::Create(std::make_shared<DyingDispatcher>(held_at_death));
  thing->ResetDispatcher();
  EXPECT_EQ(held_at_death, 1);
  EXPECT_EQ(held, 0);
}

TEST_F(Locks, AnInvocationLetsGoOfItsDispatcherOutsideTheLock) {
  int held_at_death = -1;
  const auto thing = Thing::Create(std::make_shared<DyingDispatcher>(held_at_death));
  thing->Invoke([&thing] { thing->ResetDispatcher(); }, 0);
  EXPECT_EQ(held_at_death, 0);
}

TEST_F(Locks, TwoTextsGoIntoTheCacheUnderOneLock) {
  quarn::ResourcesCache cache;
  const std::uint64_t chunk = cache.CreateChunk();
  Forget();
  cache.AppendStr(chunk, "one", "two");
  EXPECT_EQ(mutex_locks, 1);
  cache.AppendStr(0, "one", "two");
  EXPECT_EQ(mutex_locks, 2);
}

TEST_F(Locks, ACacheWhoseMutexCannotBeLockedRaisesASystemErrorAndStaysAsItIs) {
  quarn::ResourcesCache cache;
  const std::uint64_t chunk = cache.CreateChunk();
  const char* const kept = cache.AppendStr(chunk, "kept");
  QuarnBufferView view{};
  quarn::Buffer buffer(std::vector<std::uint8_t>{1, 2});
  EXPECT_TRUE(Deadlocks([&] { cache.CreateChunk(); }));
  EXPECT_TRUE(Deadlocks([&] { cache.RemoveChunk(chunk); }));
  EXPECT_TRUE(Deadlocks([&] { cache.AppendStr(chunk, "text"); }));
  EXPECT_TRUE(Deadlocks([&] { cache.AppendStr(chunk, "one", "two"); }));
  EXPECT_TRUE(
      Deadlocks([&] { cache.AppendBuffer(chunk, std::move(buffer), &view, sizeof(view)); }));
  EXPECT_EQ(buffer.GetSize(), 2U);  // NOLINT(bugprone-use-after-move): it was not taken
  EXPECT_TRUE(Deadlocks([&] { const quarn::ResourcesCacheGuard guard(cache); }));
  EXPECT_STREQ(kept, "kept");
}

TEST_F(Locks, ARunOnceSignalWhoseMutexCannotBeLockedRaisesASystemErrorAndStaysAsItIs) {
  quarn::OwnedRunOnceSignal<int> signal;
  const auto id = signal.Subscribe(listener_);
  EXPECT_TRUE(Deadlocks([&] { signal.Emit(1); }));
  EXPECT_TRUE(Deadlocks([&] { signal.Subscribe(listener_); }));
  EXPECT_TRUE(Deadlocks([&] { signal.SubscribeWeak(listener_); }));
  EXPECT_TRUE(Deadlocks([&] { signal.Unsubscribe(id); }));
  EXPECT_EQ(heard_, 0);
  signal.Emit(2);
  EXPECT_EQ(heard_, 2);
}

using LocksDeathTest = Locks;

TEST_F(LocksDeathTest, AGuardThatCannotRemoveItsChunkEndsTheProcess) {
  EXPECT_EXIT(
      {
        quarn::ResourcesCache cache;
        const quarn::ResourcesCacheGuard guard(cache);
        FailWith(EDEADLK, 1);
      },
      testing::KilledBySignal(SIGABRT), "");
}

TEST_F(LocksDeathTest, AnObjectThatCannotBeRegisteredEndsTheProcess) {
  EXPECT_EXIT(
      {
        FailWith(EDEADLK, 2);  // the second is the destructor's
        Thing::Create(nullptr);
      },
      testing::KilledBySignal(SIGABRT), "");
}

TEST_F(LocksDeathTest, ADestructorThatWouldDeadlockEndsTheProcess) {
  EXPECT_EXIT(
      {
        FailWith(EDEADLK, 1);
        thing_.reset();
      },
      testing::KilledBySignal(SIGABRT), "");
}

}  // namespace
