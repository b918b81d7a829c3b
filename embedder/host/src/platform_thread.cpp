#include "platform_thread.h"

#include <qt/internal/start_timer.h>

#include <QCoreApplication>
#include <QMetaObject>
#include <QTimer>
#include <algorithm>
#include <limits>
#include <utility>

namespace veltra::host {
namespace {

// The longest wait of one timer: the event loop counts its milliseconds in an int. A longer delay
// is waited for in several turns.
constexpr std::chrono::milliseconds kLongestWait(std::numeric_limits<int>::max());

class Depth {
 public:
  explicit Depth(int* depth) : depth_(depth) { ++*depth_; }
  ~Depth() { --*depth_; }
  Depth(const Depth&) = delete;
  Depth& operator=(const Depth&) = delete;

 private:
  int* depth_;
};

}  // namespace

void PlatformThread::Post(Task task) {
  auto run = [weak_self = weak_from_this(), task = std::move(task)] {
    if (const auto self = weak_self.lock()) {
      self->Run(task);
    }
  };
  const std::lock_guard lock(mutex_);
  if (receiver_ != nullptr) {
    QMetaObject::invokeMethod(receiver_, std::move(run), Qt::QueuedConnection);
  }
}

void PlatformThread::PostDelayed(Task task, std::chrono::milliseconds delay) {
  if (delay.count() == 0) {
    Post(std::move(task));
    return;
  }
  // Timers are started on the thread that they fire on.
  Post([this, task = std::move(task), delay] { StartTimer(task, delay); });
}

void PlatformThread::StartTimer(const Task& task, std::chrono::milliseconds delay) {
  const std::uint64_t id = ++last_delayed_;
  auto timer = std::make_unique<QTimer>(receiver_);
  timer->setSingleShot(true);
  const auto turn = std::min(delay, kLongestWait);
  QObject::connect(
      timer.get(), &QTimer::timeout, receiver_,
      [weak_self = weak_from_this(), id, timer = timer.get(), rest = delay - turn]() mutable {
        if (rest.count() > 0) {
          const auto next = std::min(rest, kLongestWait);
          rest -= next;
          qt::details::StartTimer(*timer, next);
          return;
        }
        timer->deleteLater();
        if (const auto self = weak_self.lock()) {
          self->RunDelayed(id);
        }
      });
  qt::details::StartTimer(*timer, turn);
  delayed_.emplace(id, task);
  timer.release();  // NOLINT(bugprone-unused-return-value): the receiver has it
}

void PlatformThread::RunDelayed(std::uint64_t id) {
  if (const auto due = delayed_.extract(id)) {
    Run(due.mapped());
  }
}

void PlatformThread::Run(const Task& task) {
  const Depth depth(&running_);
  task();
}

void PlatformThread::End() {
  QObject* receiver = nullptr;
  {
    const std::lock_guard lock(mutex_);
    receiver = std::exchange(receiver_, nullptr);
  }
  if (receiver == nullptr) {
    return;
  }
  // The tasks are destroyed here, with no lock held: what they own may call back.
  QCoreApplication::removePostedEvents(receiver);
  const auto delayed = std::exchange(delayed_, {});
  if (running_ == 0) {
    delete receiver;
  } else {
    // One of its own events is being delivered.
    receiver->deleteLater();
  }
}

}  // namespace veltra::host
