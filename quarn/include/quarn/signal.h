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
#include <vector>

namespace quarn {

// What subscribers see of a signal; its owner emits it through OwnedSignal. Any thread. Listeners
// run outside the lock and may subscribe, unsubscribe or emit from inside their call.
template <class... Args>
class Signal : public details::CounterClient {
 public:
  using Listener = IListener<Args...>;

  Signal(const Signal&) = delete;
  Signal& operator=(const Signal&) = delete;

  // Keeps `listener` and calls it at each emission that begins from now on, until Unsubscribe with
  // the id returned here. The id is drawn from the process's counter.
  std::uint64_t Subscribe(const std::shared_ptr<Listener>& listener) {
    const std::uint64_t id = GenerateId();
    const std::unique_lock lock(mutex_);
    owned_.emplace(id, listener);
    listeners_.push_back(listener);
    return id;
  }

  // Ends a subscription; an unknown id changes nothing. The listener, unless somebody else holds
  // it, is not called any more, not even by an emission under way that has not reached it yet.
  void Unsubscribe(std::uint64_t id) {
    std::shared_ptr<Listener> listener;  // dies after the lock is released
    const std::unique_lock lock(mutex_);
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
  void EmitImpl(const Args&... args) const {
    bool seen_dead = false;
    for (const auto& entry : CopyListeners()) {
      if (const auto listener = entry.lock()) {
        listener->Invoke(args...);
      } else {
        seen_dead = true;
      }
    }
    if (seen_dead) {
      EraseExpired();
    }
  }

 private:
  std::vector<std::weak_ptr<Listener>> CopyListeners() const {
    const std::shared_lock lock(mutex_);
    return listeners_;
  }

  void EraseExpired() const {
    const std::unique_lock lock(mutex_);
    listeners_.erase(std::remove_if(listeners_.begin(), listeners_.end(),
                                    [](const auto& entry) { return entry.expired(); }),
                     listeners_.end());
  }

  // The order of emission; `owned_` is what keeps the listeners alive.
  mutable std::vector<std::weak_ptr<Listener>> listeners_;
  std::unordered_map<std::uint64_t, std::shared_ptr<Listener>> owned_;
  mutable std::shared_mutex mutex_;
};

// The owner's view of a signal.
template <class... Args>
class OwnedSignal final : public Signal<Args...> {
 public:
  void Emit(const Args&... args) const { this->EmitImpl(args...); }
};

}  // namespace quarn

#endif  // QUARN_SIGNAL_H
