// The message pump that the client and the server share.
#ifndef VORPC_SRC_RECEIVER_H
#define VORPC_SRC_RECEIVER_H

#include <quarn/logger.h>
#include <quarn/signal.h>
#include <vorpc/message.h>

#include <atomic>
#include <cstdint>
#include <exception>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <shared_mutex>
#include <string>
#include <string_view>
#include <unordered_map>
#include <utility>
#include <vector>

namespace vorpc::details {

// Holds a value that is put in at most once.
template <class T>
class SingleEntry {
 public:
  // Keeps `value`; the first one stays, a later one is dropped with an error line.
  void Put(T&& value) { Emplace(std::move(value)); }

  // The same, made of `parts`, in place.
  template <class... Parts>
  void Emplace(Parts&&... parts) {
    if (entry_) {
      QUARN_LOG_ERROR() << "The data is already filled.";
      return;
    }
    entry_.emplace(std::forward<Parts>(parts)...);
  }

  T* Get() { return entry_ ? &*entry_ : nullptr; }

 private:
  std::optional<T> entry_;
};

// Takes messages out through a send function and in through a filter and handlers by method, in one
// order for both directions. Until SetQueueEnabled everything waits, but for the immediate forms.
//
// Any thread. One thread delivers at a time, the others wait; what the delivering thread sends or
// receives meanwhile is delivered at once, inside. No other lock is held while a function of
// somebody else runs. What such a function throws reaches the caller of the delivering operation,
// and the rest of the batch is lost.
//
// Whoever owns the receiver keeps it alive while an operation runs.
class Receiver {
 public:
  enum class Kind : std::int32_t { Receive = 0, Send = 1 };

  using NotificationHandler = std::function<void(const Message::Notification&)>;

  // Either may be empty. `filter` returns true for a message that it has dealt with.
  Receiver(std::function<void(Message&&)>&& send, std::function<bool(const Message&)>&& filter)
      : send_(std::move(send)), filter_(std::move(filter)) {}

  // Whose messages arrive, for the log. Before the first one does.
  void SetPeerName(std::string name) { peer_ = std::move(name); }

  // The message is the caller's until the call returns: what is delivered at once is not moved
  // from, so nobody else may touch it meanwhile.
  void Send(Message&& message) { Enqueue(Kind::Send, std::move(message)); }
  void Receive(Message&& message) { Enqueue(Kind::Receive, std::move(message)); }
  void SendImmediately(Message&& message);
  void ReceiveImmediately(const Message& message);

  // Lets the queue flow, for good.
  void SetQueueEnabled();

  // Drops what waits, and what would have to wait from now on: the queue will never flow.
  void DropQueue();

  // Delivers what waits, if the queue may flow.
  void ProcessQueue();

  // Adds a handler for the method's notifications; they run in the order of registration.
  void OnNotify(std::string_view method, NotificationHandler&& handler);

  // From now on nothing is delivered, no guarded callback begins, and neither messages nor handlers
  // are kept. Lets go of what was kept so far. Does not wait for what is running.
  void Close();
  bool IsClosed() const { return *closed_; }

  // Wraps `callback` so that it is skipped once this receiver is closed.
  template <class Arg>
  std::function<void(const Arg&)> UntilClosed(std::function<void(const Arg&)>&& callback) const {
    auto shared = std::make_shared<const std::function<void(const Arg&)>>(std::move(callback));
    return [closed = closed_, callback = std::move(shared)](const Arg& arg) {
      if (!*closed && *callback) {
        (*callback)(arg);
      }
    };
  }

 private:
  using NotificationSignal = quarn::OwnedSignal<Message::Notification>;
  using NotificationSignals = std::unordered_map<std::string, std::shared_ptr<NotificationSignal>>;
  using Queue = std::vector<std::pair<Kind, Message>>;

  void Enqueue(Kind kind, Message&& message);
  bool DeliverOrQueue(Kind kind, Message&& message);
  bool ProcessBatch();
  void Deliver(Kind kind, Message&& message);
  // False when nobody has registered for it.
  bool Notify(const Message::Notification& notification) const;
  void LogOrigin(const Message& message) const;

  const std::function<void(Message&&)> send_;
  const std::function<bool(const Message&)> filter_;
  std::string peer_;  // empty: nobody has named it

  mutable std::shared_mutex notification_mutex_;
  NotificationSignals notification_signals_;

  std::recursive_mutex queue_mutex_;
  Queue queue_;
  bool queue_enabled_ = false;
  bool queue_dropped_ = false;

  // Shared with the wrapped callbacks, which may outlive the receiver.
  const std::shared_ptr<std::atomic<bool>> closed_ = std::make_shared<std::atomic<bool>>(false);
};

// The guards keep a message until they die, so that it can be chosen under a lock and delivered
// after the lock was released: open the guard first, then take the lock. A guard that dies because
// of an exception delivers nothing.
class Guard {
 public:
  explicit Guard(Receiver& receiver) : receiver_(receiver) {}
  Guard(const Guard&) = delete;
  Guard& operator=(const Guard&) = delete;

 protected:
  struct Pending {
    Pending(Message&& content, bool at_once) : message(std::move(content)), immediate(at_once) {}

    Message message;
    bool immediate;
  };

  ~Guard() = default;

  Receiver& GetReceiver() { return receiver_; }
  void Put(Message&& message, bool immediate) { pending_.Emplace(std::move(message), immediate); }
  // The message that is to be delivered, or null.
  Pending* GetPending() {
    return std::uncaught_exceptions() > exceptions_ ? nullptr : pending_.Get();
  }

 private:
  Receiver& receiver_;
  SingleEntry<Pending> pending_;
  const int exceptions_ = std::uncaught_exceptions();
};

class ReceiveGuard : private Guard {
 public:
  using Guard::Guard;
  ~ReceiveGuard() noexcept(false);

  void Receive(Message&& message) { Put(std::move(message), false); }
  void ReceiveImmediately(const Message& message) { Put(Message(message), true); }
};

class SendGuard : private Guard {
 public:
  using Guard::Guard;
  ~SendGuard() noexcept(false);

  void Send(Message&& message) { Put(std::move(message), false); }
  void SendImmediately(Message&& message) { Put(std::move(message), true); }
};

}  // namespace vorpc::details

#endif  // VORPC_SRC_RECEIVER_H
