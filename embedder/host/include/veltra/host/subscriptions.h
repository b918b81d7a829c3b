// veltra::host::Subscriptions: who wants to be told of one kind of change.
#ifndef VELTRA_HOST_SUBSCRIPTIONS_H
#define VELTRA_HOST_SUBSCRIPTIONS_H

#include <quarn/listener.h>
#include <quarn/sized_struct.h>

#include <cstddef>
#include <cstdint>
#include <map>
#include <memory>
#include <vector>

namespace veltra::host {

// Belongs to the platform thread. A callback may end subscriptions, its own too, and add some.
template <class... Args>
class Subscriptions {
 public:
  // Takes what the slot holds. 0 for a null slot and for one without a callback.
  template <class Slot>
  std::uint64_t Add(const Slot* slot) {
    auto listener = std::make_shared<Listener>(slot);
    if (quarn::ReadField(slot, &Slot::callback) == nullptr) {
      return 0;
    }
    listeners_.emplace(++last_id_, std::move(listener));
    return last_id_;
  }

  void Remove(std::uint64_t id) {
    // Dies after the map is whole again: releasing it may come back here.
    const auto removed = listeners_.extract(id);
  }

  // Calls those that are subscribed now and still are when their turn comes.
  void Notify(Args... args) const {
    std::vector<std::weak_ptr<Listener>> listeners;
    for (const auto& [id, listener] : listeners_) {
      listeners.push_back(listener);
    }
    for (const auto& weak_listener : listeners) {
      if (const auto listener = weak_listener.lock()) {
        listener->Invoke(args...);
      }
    }
  }

  void Clear() { const auto removed = std::exchange(listeners_, {}); }

  std::size_t Count() const { return listeners_.size(); }

 private:
  using Listener = quarn::CStyleListener<Args...>;

  std::map<std::uint64_t, std::shared_ptr<Listener>> listeners_;
  std::uint64_t last_id_ = 0;
};

}  // namespace veltra::host

#endif  // VELTRA_HOST_SUBSCRIPTIONS_H
