// Listeners: objects that can be invoked with fixed argument types, again and again or just once.
#ifndef QUARN_LISTENER_H
#define QUARN_LISTENER_H

#include <quarn/sized_struct.h>

#include <functional>
#include <mutex>
#include <shared_mutex>
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

// A listener around a std::function; an empty one is called as if it did nothing. Any thread: the
// target runs outside the lock, and of several concurrent InvokeOnce exactly one reaches it.
template <class... Args>
class CppStyleListener : public IListener<Args...> {
 public:
  explicit CppStyleListener(std::function<void(const Args&...)> target)
      : target_(std::move(target)) {}

  void Invoke(Args... args) const override {
    Target target;
    {
      const std::shared_lock lock(mutex_);
      target = target_;
    }
    if (target) {
      target(args...);
    }
  }

  void InvokeOnce(Args... args) override {
    Target target;
    {
      const std::unique_lock lock(mutex_);
      target.swap(target_);
    }
    if (target) {
      target(args...);
    }
  }

 private:
  using Target = std::function<void(const Args&...)>;

  mutable std::shared_mutex mutex_;
  Target target_;
};

// A listener around a C slot: a callback, a function that releases the user data, the user data.
// `release` runs exactly once, after InvokeOnce (also when the callback throws) or when the
// listener dies. The callback may call or destroy the listener. Not for concurrent use.
template <class... Args>
class CStyleListener : public IListener<Args...> {
 public:
  // Copies the slot's `callback`, `release` and `user_data` as far as its size covers them; all are
  // null for a null slot.
  template <class Slot>
  explicit CStyleListener(const Slot* slot)
      : callback_(ReadField(slot, &Slot::callback)),
        release_(ReadField(slot, &Slot::release)),
        user_data_(ReadField(slot, &Slot::user_data)) {}

  ~CStyleListener() override {
    if (release_ != nullptr) {
      release_(user_data_);
    }
  }
  CStyleListener(const CStyleListener&) = delete;
  CStyleListener& operator=(const CStyleListener&) = delete;

  void Invoke(Args... args) const override {
    if (callback_ != nullptr) {
      callback_(user_data_, std::move(args)...);
    }
  }

  void InvokeOnce(Args... args) override {
    // Dies, and so releases the user data, when the call is over.
    const CStyleListener taken(std::move(*this));
    taken.Invoke(std::move(args)...);
  }

 private:
  CStyleListener(CStyleListener&& other) noexcept
      : callback_(std::exchange(other.callback_, nullptr)),
        release_(std::exchange(other.release_, nullptr)),
        user_data_(std::exchange(other.user_data_, nullptr)) {}

  void (*callback_)(void* user_data, Args...);
  void (*release_)(void* user_data);
  void* user_data_;
};

}  // namespace quarn

#endif  // QUARN_LISTENER_H
