#include "platform_thread.h"

#include <QCoreApplication>
#include <QMetaObject>
#include <QTimer>
#include <utility>

namespace veltra::host {
namespace {

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
  delayed_.emplace(id, task);
  auto* const timer = new QTimer(receiver_);
  timer->setSingleShot(true);
  QObject::connect(timer, &QTimer::timeout, receiver_, [weak_self = weak_from_this(), id, timer] {
    timer->deleteLater();
    if (const auto self = weak_self.lock()) {
      if (const auto due = self->delayed_.extract(id)) {
        self->Run(due.mapped());
      }
    }
  });
  timer->start(delay);
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
  // What the tasks own is destroyed here, with no lock held: it may call back.
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
