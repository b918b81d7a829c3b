// Signals that are emitted at most once and remember with what.
#ifndef QUARN_RUN_ONCE_SIGNAL_H
#define QUARN_RUN_ONCE_SIGNAL_H

#include <quarn/listener.h>
#include <quarn/object.h>

#include <algorithm>
#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <tuple>
#include <utility>
#include <vector>

namespace quarn {

// The subscribers' view of a run-once signal; its owner emits it through OwnedRunOnceSignal. Every
// listener hears the one outcome exactly once, however late it subscribes. Any thread; listeners
// run outside the lock.
template <class... Args>
class RunOnceSignal : public details::CounterClient {
 public:
  using Listener = IListener<Args...>;

  RunOnceSignal(const RunOnceSignal&) = delete;
  RunOnceSignal& operator=(const RunOnceSignal&) = delete;

  // Before the emission: keeps `listener` until then and returns the subscription's id. After it:
  // calls `listener` at once, on this thread, with the arguments of the emission and returns 0. A
  // null listener is not subscribed: 0.
  std::uint64_t Subscribe(const std::shared_ptr<Listener>& listener) {
    if (!listener) {
      return 0;
    }
    std::unique_lock lock(mutex_);
    if (!emitted_) {
      const std::uint64_t id = GenerateId();
      owned_->emplace_back(id, listener);
      return id;
    }
    InvokeLate(lock, listener);
    return 0;
  }

  // As Subscribe, without keeping the listener alive; it hears the outcome after the kept ones.
  void SubscribeWeak(const std::weak_ptr<Listener>& listener) {
    std::unique_lock lock(mutex_);
    if (!emitted_) {
      weak_->push_back(listener);
    } else if (const auto alive = listener.lock()) {
      InvokeLate(lock, alive);
    }
  }

  // Ends a subscription that has not been served yet; any other id changes nothing.
  void Unsubscribe(std::uint64_t id) {
    std::shared_ptr<Listener> listener;  // destroyed after unlocking
    const std::unique_lock lock(mutex_);
    if (emitted_) {
      return;
    }
    const auto found = std::find_if(owned_->begin(), owned_->end(),
                                    [id](const auto& entry) { return entry.first == id; });
    if (found != owned_->end()) {
      listener = std::move(found->second);
      owned_->erase(found);
    }
  }

 protected:
  RunOnceSignal() = default;
  ~RunOnceSignal() = default;

  // The first call stores the arguments, calls every listener with them and lets the listeners go;
  // later calls do nothing. An exception ends the emission and reaches the caller.
  void EmitImpl(Args... args) {
    std::unique_lock lock(mutex_);
    if (emitted_) {
      return;
    }
    stored_.emplace(args...);
    emitted_ = true;
    const auto owned = std::move(owned_);
    const auto weak = std::move(weak_);
    lock.unlock();
    for (const auto& [id, listener] : *owned) {
      listener->InvokeOnce(args...);
    }
    for (const auto& entry : *weak) {
      if (const auto listener = entry.lock()) {
        listener->InvokeOnce(args...);
      }
    }
  }

 private:
  // Takes the listener by value: its call may destroy this signal and drop every other reference.
  void InvokeLate(std::unique_lock<std::mutex>& lock, std::shared_ptr<Listener> listener) {
    const std::tuple<Args...> args = *stored_;
    lock.unlock();
    std::apply([&listener](const Args&... arg) { listener->InvokeOnce(arg...); }, args);
  }

  using OwnedListeners = std::vector<std::pair<std::uint64_t, std::shared_ptr<Listener>>>;
  using WeakListeners = std::vector<std::weak_ptr<Listener>>;

  std::mutex mutex_;
  std::optional<std::tuple<Args...>> stored_;
  bool emitted_ = false;
  std::shared_ptr<OwnedListeners> owned_ = std::make_shared<OwnedListeners>();
  std::shared_ptr<WeakListeners> weak_ = std::make_shared<WeakListeners>();
};

// The owner's view of a run-once signal.
template <class... Args>
class OwnedRunOnceSignal final : public RunOnceSignal<Args...> {
 public:
  void Emit(const Args&... args) { this->EmitImpl(args...); }
};

}  // namespace quarn

#endif  // QUARN_RUN_ONCE_SIGNAL_H
