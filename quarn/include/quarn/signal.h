// Signals: emit a value to every listener, in the order in which they subscribed.
#ifndef QUARN_SIGNAL_H
#define QUARN_SIGNAL_H

#include <quarn/listener.h>
#include <quarn/object.h>

#include <algorithm>
#include <cstdint>
#include <memory>
#include <mutex>
#include <shared_mutex>
#include <unordered_map>
#include <utility>
#include <vector>

namespace quarn {

// The subscribers' view of a signal; its owner emits it through OwnedSignal. Any thread. Listeners
// run outside the lock and may subscribe, unsubscribe, emit or destroy the signal from inside their
// call.
template <class... Args>
class Signal : public details::CounterClient {
 public:
  using Listener = IListener<Args...>;

  Signal(const Signal&) = delete;
  Signal& operator=(const Signal&) = delete;

  // Keeps `listener` and calls it at each emission that begins from now on, until Unsubscribe with
  // the id returned here. The id is drawn from the process's counter. A null listener is not
  // subscribed: the id is then 0.
  std::uint64_t Subscribe(const std::shared_ptr<Listener>& listener) {
    if (!listener) {
      return 0;
    }
    const std::uint64_t id = GenerateId();
    const std::unique_lock lock(order_->mutex);
    owned_.emplace(id, listener);
    order_->entries.push_back({id, listener});
    return id;
  }

  // As Subscribe, without keeping the listener alive; the first emission that finds it dead forgets
  // it.
  std::uint64_t SubscribeWeak(const std::weak_ptr<Listener>& listener) {
    const std::uint64_t id = GenerateId();
    const std::unique_lock lock(order_->mutex);
    order_->entries.push_back({id, listener});
    return id;
  }

  // Ends a subscription; an unknown id changes nothing. No emission that begins from now on calls
  // the listener, and neither does one under way that has not reached it, unless somebody else
  // keeps it alive.
  void Unsubscribe(std::uint64_t id) {
    std::shared_ptr<Listener> listener;  // destroyed after unlocking
    const std::unique_lock lock(order_->mutex);
    order_->EraseIf([id](const Entry& entry) { return entry.id == id; });
    const auto found = owned_.find(id);
    if (found != owned_.end()) {
      listener = std::move(found->second);
      owned_.erase(found);
    }
  }

 protected:
  Signal() = default;
  ~Signal() = default;

  // Calls every listener with a copy of the arguments. An exception ends the emission and reaches
  // the caller.
  void EmitImpl(Args... args) const {
    // From the first call on, a listener may have destroyed the signal, or what the emitter passed.
    const std::shared_ptr<Order> order = order_;
    bool seen_dead = false;
    for (const Entry& entry : order->Copy()) {
      if (const auto listener = entry.listener.lock()) {
        listener->Invoke(args...);
      } else {
        seen_dead = true;
      }
    }
    if (seen_dead) {
      const std::unique_lock lock(order->mutex);
      order->EraseIf([](const Entry& entry) { return entry.listener.expired(); });
    }
  }

 private:
  struct Entry {
    std::uint64_t id;
    std::weak_ptr<Listener> listener;
  };

  // Whom an emission calls, in this order.
  struct Order {
    std::vector<Entry> Copy() const {
      const std::shared_lock lock(mutex);
      return entries;
    }

    // With the mutex held.
    template <class Predicate>
    void EraseIf(Predicate predicate) {
      entries.erase(std::remove_if(entries.begin(), entries.end(), predicate), entries.end());
    }

    mutable std::shared_mutex mutex;  // guards the entries, and the signal's `owned_`
    std::vector<Entry> entries;
  };

  // Shared with the emissions that are under way.
  const std::shared_ptr<Order> order_ = std::make_shared<Order>();
  // Keeps the listeners of Subscribe alive, by the ids of their subscriptions.
  std::unordered_map<std::uint64_t, std::shared_ptr<Listener>> owned_;
};

// The owner's view of a signal.
template <class... Args>
class OwnedSignal final : public Signal<Args...> {
 public:
  void Emit(const Args&... args) const { this->EmitImpl(args...); }
};

}  // namespace quarn

#endif  // QUARN_SIGNAL_H
