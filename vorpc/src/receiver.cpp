#include "receiver.h"

#include <quarn/escaped.h>
#include <quarn/internal/calls_out.h>
#include <quarn/listener.h>

#include <sstream>

namespace vorpc::details {
namespace {

// "the response to id417_1"; nothing for what is no message.
std::string Describe(const Message& message) {
  std::ostringstream text;
  if (const auto* const response = message.GetResponse()) {
    text << "the response to " << quarn::Escaped{response->id.value};
  } else if (const auto* const request = message.GetRequest()) {
    text << "the request " << quarn::Escaped{request->id.value} << " '"
         << quarn::Escaped{request->method} << "'";
  } else if (const auto* const notification = message.GetNotification()) {
    text << "the notification '" << quarn::Escaped{notification->method} << "'";
  }
  return text.str();
}

}  // namespace

void Receiver::SendImmediately(Message&& message) {
  if (send_ && !IsClosed()) {
    send_(std::move(message));
  }
}

void Receiver::ReceiveImmediately(const Message& message) {
  if (IsClosed() || (filter_ && filter_(message))) {
    return;
  }
  if (const Message::Notification* const notification = message.GetNotification()) {
    if (!Notify(*notification)) {
      LogOrigin(message);
    }
    return;
  }
  QUARN_LOG_WARN() << "[RPC Receiver]: unhandled message";
  LogOrigin(message);
}

// In a line of its own: the text of the line before is fixed.
void Receiver::LogOrigin(const Message& message) const {
  const std::string what = peer_.empty() ? std::string() : Describe(message);
  if (!what.empty()) {
    QUARN_LOG_WARN() << "[RPC Receiver]: nobody here waits for " << what << " from " << peer_;
  }
}

void Receiver::SetQueueEnabled() {
  {
    const std::lock_guard lock(queue_mutex_);
    queue_enabled_ = true;
  }
  ProcessQueue();
}

void Receiver::DropQueue() {
  Queue queue;  // destroyed after unlocking
  const std::lock_guard lock(queue_mutex_);
  queue.swap(queue_);
  queue_dropped_ = true;
}

void Receiver::ProcessQueue() {
  while (ProcessBatch()) {
  }
}

void Receiver::OnNotify(std::string_view method, NotificationHandler&& handler) {
  const auto listener = std::make_shared<quarn::CppStyleListener<Message::Notification>>(
      UntilClosed(std::move(handler)));
  const std::unique_lock lock(notification_mutex_);
  if (IsClosed()) {
    return;  // the listener dies after the lock is released
  }
  auto& signal = notification_signals_[std::string(method)];
  if (signal == nullptr) {
    signal = std::make_shared<NotificationSignal>();
  }
  signal->Subscribe(listener);
}

void Receiver::Close() {
  *closed_ = true;
  NotificationSignals signals;  // these die after the locks are released
  Queue queue;
  // A thread that delivers has taken what waited, and drops it.
  if (const std::unique_lock lock(queue_mutex_, std::try_to_lock); lock.owns_lock()) {
    queue.swap(queue_);
  }
  const std::unique_lock lock(notification_mutex_);
  signals.swap(notification_signals_);
}

void Receiver::Enqueue(Kind kind, Message&& message) {
  if (!IsClosed() && !DeliverOrQueue(kind, std::move(message))) {
    ProcessQueue();
  }
}

// False when what waits now is to be delivered. A message that would be alone in the queue passes
// it by, as if put in and taken out under the one lock.
bool Receiver::DeliverOrQueue(Kind kind, Message&& message) {
  const std::lock_guard lock(queue_mutex_);
  if (queue_enabled_ && queue_.empty()) {
    Deliver(kind, std::move(message));
    return true;
  }
  if (queue_dropped_) {
    return true;
  }
  queue_.emplace_back(kind, std::move(message));
  return !queue_enabled_;
}

// The lock is held while the batch is delivered: other threads wait and so keep the order, while
// this one may come back in from inside a delivery. True when there was a batch.
bool Receiver::ProcessBatch() {
  const std::lock_guard lock(queue_mutex_);
  if (!queue_enabled_ || queue_.empty()) {
    return false;
  }
  Queue batch;
  batch.swap(queue_);
  for (auto& [kind, message] : batch) {
    Deliver(kind, std::move(message));
  }
  return true;
}

void Receiver::Deliver(Kind kind, Message&& message) {
  if (kind == Kind::Send) {
    SendImmediately(std::move(message));
  } else {
    ReceiveImmediately(message);
  }
}

bool Receiver::Notify(const Message::Notification& notification) const {
  std::shared_ptr<NotificationSignal> signal;
  {
    const std::shared_lock lock(notification_mutex_);
    const auto found = notification_signals_.find(notification.method);
    if (found != notification_signals_.end()) {
      signal = found->second;
    }
  }
  if (signal == nullptr) {
    QUARN_LOG_ERROR() << "Unknown event '" << quarn::Escaped{notification.method} << "()'";
    return false;
  }
  quarn::details::CallsOut("a handler of notifications");
  signal->Emit(notification);
  return true;
}

ReceiveGuard::~ReceiveGuard() noexcept(false) {
  Pending* const pending = GetPending();
  if (pending == nullptr) {
    return;
  }
  if (pending->immediate) {
    GetReceiver().ReceiveImmediately(pending->message);
  } else {
    GetReceiver().Receive(std::move(pending->message));
  }
}

SendGuard::~SendGuard() noexcept(false) {
  Pending* const pending = GetPending();
  if (pending == nullptr) {
    return;
  }
  if (pending->immediate) {
    GetReceiver().SendImmediately(std::move(pending->message));
  } else {
    GetReceiver().Send(std::move(pending->message));
  }
}

}  // namespace vorpc::details
