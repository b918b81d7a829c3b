// A program of its own: it counts the locks that the library takes, and makes taking them fail.
#include <gtest/gtest.h>
#include <pthread.h>
#include <quarn/object.h>
#include <quarn/run_once_signal.h>
#include <quarn/signal.h>

#include <cerrno>
#include <functional>
#include <memory>
#include <string>
#include <system_error>
#include <utility>

namespace {

int shared_locks = 0;
int exclusive_locks = 0;
// How many attempts to lock shared fail for a while, and what the next attempt of any kind returns.
int busy_attempts = 0;
int failure = 0;

}  // namespace

// NOLINTBEGIN(bugprone-reserved-identifier): the linker wants these names
extern "C" {

int __real_pthread_rwlock_rdlock(pthread_rwlock_t* lock);
int __real_pthread_rwlock_wrlock(pthread_rwlock_t* lock);

int __wrap_pthread_rwlock_rdlock(pthread_rwlock_t* lock) {
  ++shared_locks;
  if (busy_attempts > 0) {
    --busy_attempts;
    return EAGAIN;
  }
  return failure != 0 ? failure : __real_pthread_rwlock_rdlock(lock);
}

int __wrap_pthread_rwlock_wrlock(pthread_rwlock_t* lock) {
  ++exclusive_locks;
  return failure != 0 ? failure : __real_pthread_rwlock_wrlock(lock);
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

// A target that does something, once, while a listener copies it to call it.
struct Target {
  Target(std::function<void()>& action, int& sum) : when_copied(action), heard(sum) {}
  Target(const Target& other) : when_copied(other.when_copied), heard(other.heard) {
    if (const auto action = std::exchange(when_copied, nullptr)) {
      action();
    }
  }
  Target& operator=(const Target&) = delete;
  ~Target() = default;
  void operator()(int value) const { heard += value; }

  std::function<void()>& when_copied;
  int& heard;
};

class Locks : public testing::Test {
 protected:
  void SetUp() override {
    thing_ = Thing::Create(std::make_shared<RunningDispatcher>());
    Forget();
  }
  void TearDown() override { failure = 0; }

  static void Forget() {
    shared_locks = 0;
    exclusive_locks = 0;
  }

  // Whether `action` raises the error of a lock that would deadlock.
  template <class Action>
  static bool Deadlocks(Action&& action) {
    failure = EDEADLK;
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
  std::function<void()> when_copied_;
  std::shared_ptr<IntListener> listener_ =
      std::make_shared<IntListener>(Target(when_copied_, heard_));
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

TEST_F(Locks, InvokingAListenerTakesASharedLockOnlyWhileItIsRead) {
  listener_->Invoke(1);
  EXPECT_EQ(shared_locks, 0);
  when_copied_ = [this] { listener_->Invoke(1); };
  listener_->Invoke(1);
  EXPECT_EQ(heard_, 3);
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
  when_copied_ = [this] { listener_->Invoke(1); };
  listener_->Invoke(1);
  EXPECT_EQ(heard_, 3);
  EXPECT_EQ(busy_attempts, 0);
}

TEST_F(Locks, ALockThatWouldDeadlockRaisesASystemError) {
  EXPECT_TRUE(Deadlocks([this] { Thing::FromRef(thing_->GetRef()); }));
  EXPECT_TRUE(Deadlocks([this] { thing_->Invoke([] {}, 0); }));
  EXPECT_TRUE(Deadlocks([this] { thing_->ResetDispatcher(); }));
  EXPECT_TRUE(Deadlocks([this] { signal_.Emit(1); }));
  EXPECT_TRUE(Deadlocks([this] { signal_.Subscribe(listener_); }));
  EXPECT_TRUE(Deadlocks([this] {
    when_copied_ = [this] { listener_->Invoke(1); };
    listener_->Invoke(1);
  }));
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

using LocksDeathTest = Locks;

TEST_F(LocksDeathTest, AnObjectThatCannotBeRegisteredEndsTheProcess) {
  EXPECT_EXIT(
      {
        failure = EDEADLK;
        Thing::Create(nullptr);
      },
      testing::KilledBySignal(SIGABRT), "");
}

TEST_F(LocksDeathTest, ADestructorThatWouldDeadlockEndsTheProcess) {
  EXPECT_EXIT(
      {
        failure = EDEADLK;
        thing_.reset();
      },
      testing::KilledBySignal(SIGABRT), "");
}

}  // namespace
