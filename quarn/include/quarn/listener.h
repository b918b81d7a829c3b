// Listeners: objects that can be invoked with fixed argument types, again and again or just once.
#ifndef QUARN_LISTENER_H
#define QUARN_LISTENER_H

#include <quarn/sized_struct.h>

#include <atomic>
#include <chrono>
#include <functional>
#include <memory>
#include <mutex>
#include <shared_mutex>
#include <thread>
#include <utility>

namespace quarn {

// Arguments travel by value. What a target throws reaches the caller.
template <class... Args>
class IListener {
 public:
  virtual ~IListener() = default;

  // Calls the target; the listener stays usable.
  virtual void Invoke(Args... args) const = 0;

  // Calls the target and lets it go: no later call of either kind reaches it.
  virtual void InvokeOnce(Args... args) = 0;
};

namespace details {

// One atomic operation, if nobody else wants it: for moments.
class LoneLock {
 public:
  // NOLINTBEGIN(readability-identifier-naming): what std::unique_lock calls
  // Not while somebody waits in lock().
  bool try_lock() {
    return !wanted_.load(std::memory_order_relaxed) &&
           !taken_.exchange(true, std::memory_order_acquire);
  }
  void lock() {
    while (taken_.exchange(true, std::memory_order_acquire)) {
      wanted_.store(true, std::memory_order_relaxed);
      // Not a yield, which would keep a holder of lower priority from getting done.
      std::this_thread::sleep_for(std::chrono::microseconds(1));
    }
    wanted_.store(false, std::memory_order_relaxed);
  }
  void unlock() { taken_.store(false, std::memory_order_release); }
  // NOLINTEND(readability-identifier-naming)

 private:
  std::atomic<bool> taken_{false};
  std::atomic<bool> wanted_{false};
};

}  // namespace details

// A listener around a std::function; an empty one is called as if it did nothing. Any thread: the
// target runs outside the lock, and of several concurrent InvokeOnce exactly one reaches it.
template <class... Args>
class CppStyleListener : public IListener<Args...> {
 public:
  explicit CppStyleListener(std::function<void(const Args&...)> target)
      : target_(std::move(target)) {}

  void Invoke(Args... args) const override {
    if (const Target target = GetTarget()) {
      target(args...);
    }
  }

  void InvokeOnce(Args... args) override {
    if (const Target target = TakeTarget()) {
      target(args...);
    }
  }

 private:
  using Target = std::function<void(const Args&...)>;

  Target GetTarget() const {
    const std::unique_lock lone(lone_, std::try_to_lock);
    if (lone.owns_lock()) {
      return target_;
    }
    const std::shared_lock lock(mutex_);
    return target_;
  }

  Target TakeTarget() {
    const std::lock_guard lone(lone_);  // first, so that who reads by it may come back in
    const std::unique_lock lock(mutex_);
    return std::exchange(target_, nullptr);
  }

  // Whoever reads holds either of these, who takes the target holds both. The first is for a reader
  // without company, at half the price; readers who meet share the second.
  mutable details::LoneLock lone_;
  mutable std::shared_mutex mutex_;
  Target target_;
};

// A listener around a C slot: a callback, a function that releases the user data, the user data.
// `release` runs exactly once, after InvokeOnce (also when the callback throws) or when the
// listener dies, and never before a running callback has returned: the callback may call or destroy
// the listener. Not for concurrent use.
template <class... Args>
class CStyleListener : public IListener<Args...> {
 public:
  // Copies the slot's `callback`, `release` and `user_data` as far as its size covers them; all are
  // null for a null slot.
  template <class Slot>
  explicit CStyleListener(const Slot* slot)
      : target_(std::make_shared<const Target>(ReadField(slot, &Slot::callback),
                                               ReadField(slot, &Slot::release),
                                               ReadField(slot, &Slot::user_data))) {}

  void Invoke(Args... args) const override { Call(target_, std::move(args)...); }

  void InvokeOnce(Args... args) override {
    Call(std::exchange(target_, nullptr), std::move(args)...);
  }

 private:
  struct Target {
    Target(void (*function)(void*, Args...), void (*release_function)(void*), void* data)
        : callback(function), release(release_function), user_data(data) {}
    ~Target() {
      if (release != nullptr) {
        release(user_data);
      }
    }
    Target(const Target&) = delete;
    Target& operator=(const Target&) = delete;

    void (*callback)(void* user_data, Args...);
    void (*release)(void* user_data);
    void* user_data;
  };

  // By value: what the callback does to the listener does not end its target before it returns.
  static void Call(std::shared_ptr<const Target> target, Args... args) {
    if (target && target->callback != nullptr) {
      target->callback(target->user_data, std::move(args)...);
    }
  }

  std::shared_ptr<const Target> target_;
};

}  // namespace quarn

#endif  // QUARN_LISTENER_H
