#include "quiet_notifier.h"

#include <sys/epoll.h>

#include <QtCore/QAbstractEventDispatcher>
#include <QtCore/QObject>
#include <QtCore/QPointer>
#include <cstdint>
#include <unordered_map>

#include "process_exit.h"
#include "support.h"
#include "unique_fd.h"
#include "want_of_memory.h"

namespace RuntimeManager::host {

// The descriptors of one event loop, behind one that is readable when any of them is.
class QuietNotifier::Hub : public std::enable_shared_from_this<QuietNotifier::Hub> {
 public:
  // That of the calling thread's event loop.
  static std::shared_ptr<Hub> Get();

  Hub();
  ~Hub();
  Hub(const Hub&) = delete;
  Hub& operator=(const Hub&) = delete;

  // False when the system has no room for another one.
  bool Add(int descriptor, QuietNotifier* notifier);
  void Remove(int descriptor);
  // Those of often used descriptors that have a place of their own in the event loop.
  bool HasPlace() const { return places_ < kPlaces; }
  void TakePlace() { ++places_; }
  void GivePlaceBack() { --places_; }

 private:
  bool IsOf(QAbstractEventDispatcher* loop) const { return loop_ == loop; }
  void OnReadable();
  void Scatter();

  // So few cost an event loop next to nothing; one more system call for each message does.
  static constexpr int kPlaces = 16;

  // Of the thread. A plain pointer: for the destructor of anything more the C library takes memory,
  // and ends the process when it gets none.
  static thread_local Hub* latest_;

  const QPointer<QAbstractEventDispatcher> loop_;  // null once it is gone
  int places_ = 0;
  int vain_waits_ = 0;  // in a row
  UniqueFd epoll_;
  std::unique_ptr<QSocketNotifier> readable_;
  std::unordered_map<int, QuietNotifier*> notifiers_;  // by their descriptors
};

thread_local QuietNotifier::Hub* QuietNotifier::Hub::latest_ = nullptr;

// What outlives an application object keeps the hub of its event loop; the next application has an
// event loop of its own.
std::shared_ptr<QuietNotifier::Hub> QuietNotifier::Hub::Get() {
  if (latest_ != nullptr && latest_->IsOf(QAbstractEventDispatcher::instance())) {
    return latest_->shared_from_this();
  }
  auto hub = std::make_shared<Hub>();
  latest_ = hub.get();
  return hub;
}

// In its thread, as its notifiers are.
QuietNotifier::Hub::~Hub() {
  if (latest_ == this) {
    latest_ = nullptr;
  }
}

QuietNotifier::Hub::Hub()
    : loop_(QAbstractEventDispatcher::instance()), epoll_(::epoll_create1(EPOLL_CLOEXEC)) {
  static_cast<void>(IsForkedCopy());
  if (!epoll_.IsValid()) {
    return;
  }
  readable_ = std::make_unique<QSocketNotifier>(epoll_.Get(), QSocketNotifier::Read);
  readable_->setEnabled(false);
  QObject::connect(readable_.get(), &QSocketNotifier::activated, readable_.get(),
                   [this] { OnReadable(); });
}

bool QuietNotifier::Hub::Add(int descriptor, QuietNotifier* notifier) {
  epoll_event event{};
  event.events = EPOLLIN;
  event.data.fd = descriptor;
  notifiers_[descriptor] = notifier;
  if (::epoll_ctl(epoll_.Get(), EPOLL_CTL_ADD, descriptor, &event) != 0) {
    notifiers_.erase(descriptor);
    return false;
  }
  try {
    readable_->setEnabled(true);
  } catch (...) {
    Remove(descriptor);
    throw;
  }
  return true;
}

// The set is shared with forked copies of the process, which leave it alone.
void QuietNotifier::Hub::Remove(int descriptor) {
  notifiers_.erase(descriptor);
  if (IsForkedCopy()) {
    return;
  }
  ::epoll_ctl(epoll_.Get(), EPOLL_CTL_DEL, descriptor, nullptr);
  // An empty set costs each turn of the event loop as much as a full one.
  readable_->setEnabled(!notifiers_.empty());
}

// One at a time: what a callback does may make the news of the others stale.
void QuietNotifier::Hub::OnReadable() {
  epoll_event event{};
  const int count =
      RetryOnEintr([this, &event] { return ::epoll_wait(epoll_.Get(), &event, 1, 0); });
  vain_waits_ = count < 0 ? vain_waits_ + 1 : 0;
  if (vain_waits_ >= kMostVainTries) {
    Scatter();
  }
  if (count != 1) {
    return;
  }
  const auto found = notifiers_.find(event.data.fd);
  if (found == notifiers_.end()) {
    return;
  }
  const auto on_readable = found->second->on_readable_;
  (*on_readable)();
}

// The set tells nothing any more: each descriptor gets a place of its own in the event loop.
void QuietNotifier::Hub::Scatter() {
  const auto notifiers = notifiers_;
  for (const auto& [descriptor, notifier] : notifiers) {
    if (Attempt([own = notifier] { own->MakeOwn(); })) {
      Remove(descriptor);
    }
  }
}

QuietNotifier::QuietNotifier(int descriptor, std::function<void()> on_readable, Use use)
    : descriptor_(descriptor),
      on_readable_(std::make_shared<const std::function<void()>>(std::move(on_readable))),
      hub_(Hub::Get()) {
  if (use == Use::kOften && hub_->HasPlace()) {
    MakeOwn();
    hub_->TakePlace();
    has_place_ = enabled_ = true;
    return;
  }
  SetEnabled(true);
}

QuietNotifier::~QuietNotifier() {
  SetEnabled(false);
  if (has_place_) {
    hub_->GivePlaceBack();
  }
}

void QuietNotifier::MakeOwn() {
  own_ = std::make_unique<QSocketNotifier>(descriptor_, QSocketNotifier::Read);
  QObject::connect(own_.get(), &QSocketNotifier::activated, own_.get(),
                   [on_readable = on_readable_] { (*on_readable)(); });
}

void QuietNotifier::SetEnabled(bool enabled) {
  if (enabled == enabled_) {
    return;
  }
  if (own_ != nullptr) {
    own_->setEnabled(enabled);
  } else if (!enabled) {
    hub_->Remove(descriptor_);
  } else if (!hub_->Add(descriptor_, this)) {
    MakeOwn();
  }
  enabled_ = enabled;
}

}  // namespace RuntimeManager::host
