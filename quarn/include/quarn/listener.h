// Listeners: objects that can be invoked with fixed argument types, again and again or just once.
#ifndef QUARN_LISTENER_H
#define QUARN_LISTENER_H

#include <quarn/sized_struct.h>

#include <functional>
#include <memory>
#include <mutex>
#include <shared_mutex>
#include <utility>

namespace quarn {

// Arguments travel by value. An exception of the target reaches the caller.
template <class... Args>
class IListener {
 public:
  virtual ~IListener() = default;

  // Calls the target; the listener stays usable.
  virtual void Invoke(Args... args) const = 0;

  // Calls the target and lets it go: no later call of either kind reaches it.
  virtual void InvokeOnce(Args... args) = 0;
};

// A listener around a std::function; an empty one is called as if it did nothing. Any thread: the
// function runs outside the lock, and of several concurrent InvokeOnce exactly one reaches it. It
// is called where it lies, so that one with state keeps its state from call to call.
template <class... Args>
class CppStyleListener : public IListener<Args...> {
 public:
  explicit CppStyleListener(std::function<void(const Args&...)> target)
      : target_(target ? std::make_shared<const Target>(std::move(target)) : nullptr) {}

  void Invoke(Args... args) const override {
    if (const auto target = GetTarget()) {
      (*target)(args...);
    }
  }

  void InvokeOnce(Args... args) override {
    if (const auto target = TakeTarget()) {
      (*target)(args...);
    }
  }

 private:
  using Target = std::function<void(const Args&...)>;

  std::shared_ptr<const Target> GetTarget() const {
    const std::shared_lock lock(mutex_);
    return target_;
  }

  std::shared_ptr<const Target> TakeTarget() {
    const std::unique_lock lock(mutex_);
    return std::exchange(target_, nullptr);
  }

  mutable std::shared_mutex mutex_;
  std::shared_ptr<const Target> target_;
};

// A listener around a C slot: a callback, a function that releases the user data, the user data.
// `release` runs exactly once, after InvokeOnce (also when the callback throws) or when the
// listener dies, and never before a running callback has returned: the callback may call or destroy
// the listener. Not for concurrent use.
template <class... Args>
class CStyleListener : public IListener<Args...> {
 public:
  // Copies the slot's `callback`, `release` and `user_data` as far as its size covers them; all are
  // null for a null slot. Without memory for that, `release` has run when std::bad_alloc comes out.
  template <class Slot>
  explicit CStyleListener(const Slot* slot)
      : target_(MakeTarget(ReadField(slot, &Slot::callback), ReadField(slot, &Slot::release),
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

  static std::shared_ptr<const Target> MakeTarget(void (*callback)(void*, Args...),
                                                  void (*release)(void*), void* user_data) {
    try {
      return std::make_shared<const Target>(callback, release, user_data);
    } catch (...) {
      if (release != nullptr) {
        release(user_data);
      }
      throw;
    }
  }

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
