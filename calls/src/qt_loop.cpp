#include <tarv/calls/loop.h>

#include <QCoreApplication>
#include <QEvent>
#include <QObject>
#include <QThread>
#include <QTimerEvent>
#include <algorithm>
#include <deque>
#include <mutex>
#include <utility>
#include <vector>

namespace tarv {

namespace {

// A function that waits for its time.
struct Wake {
  Loop::Time time;
  std::uint64_t number;  // keeps the order of those with one time
  Loop::Function function;
};

// For a heap with the earliest at its top.
bool IsLater(const Wake& a, const Wake& b) {
  return a.time != b.time ? a.time > b.time : a.number > b.number;
}

// Functions and wakes of one thread. Any thread adds, the thread takes.
class Agenda {
 public:
  // True when nothing had been posted: the thread must be told.
  bool Post(Loop::Function&& function) {
    const std::lock_guard lock(mutex_);
    posted_.push_back(std::move(function));
    return posted_.size() == 1;
  }
  // True when the thread must set its timer anew.
  bool Add(Loop::Time time, Loop::Function&& function) {
    const std::lock_guard lock(mutex_);
    wakes_.push_back({time, ++number_, std::move(function)});
    std::push_heap(wakes_.begin(), wakes_.end(), IsLater);
    return wakes_.front().number == number_;
  }
  std::deque<Loop::Function> TakePosted() {
    const std::lock_guard lock(mutex_);
    return std::exchange(posted_, {});
  }
  // An empty function when none is due.
  Loop::Function TakeDue(Loop::Time now) {
    const std::lock_guard lock(mutex_);
    if (wakes_.empty() || wakes_.front().time > now) {
      return {};
    }
    std::pop_heap(wakes_.begin(), wakes_.end(), IsLater);
    Loop::Function function = std::move(wakes_.back().function);
    wakes_.pop_back();
    return function;
  }
  // False when there is none.
  bool FindEarliest(Loop::Time& time) const {
    const std::lock_guard lock(mutex_);
    if (!wakes_.empty()) {
      time = wakes_.front().time;
    }
    return !wakes_.empty();
  }

 private:
  mutable std::mutex mutex_;
  std::deque<Loop::Function> posted_;
  std::vector<Wake> wakes_;
  std::uint64_t number_ = 0;
};

// Stands in the thread for the agenda: gets its events and has its one timer.
class Clerk final : public QObject {
 public:
  explicit Clerk(std::weak_ptr<Agenda> agenda) : agenda_(std::move(agenda)) {}

  static QEvent::Type RunPosted() {
    static const int kType = QEvent::registerEventType();
    return static_cast<QEvent::Type>(kType);
  }
  static QEvent::Type SetTimer() {
    static const int kType = QEvent::registerEventType();
    return static_cast<QEvent::Type>(kType);
  }

 protected:
  bool event(QEvent* event) override {
    const auto agenda = agenda_.lock();
    if (event->type() == RunPosted()) {
      RunAll(agenda);
    } else if (event->type() == SetTimer()) {
      StartTimer(agenda);
    } else if (event->type() == QEvent::Timer) {
      RunDue(agenda);
      StartTimer(agenda);
    } else {
      return QObject::event(event);
    }
    return true;
  }

 private:
  static void RunAll(const std::shared_ptr<Agenda>& agenda) {
    if (agenda) {
      for (Loop::Function& function : agenda->TakePosted()) {
        // Destroyed as soon as it has run: it may hold the last reference to something.
        std::exchange(function, {})();
      }
    }
  }
  static void RunDue(const std::shared_ptr<Agenda>& agenda) {
    const auto now = Loop::Clock::now();
    while (Loop::Function function = agenda ? agenda->TakeDue(now) : Loop::Function()) {
      function();
    }
  }
  void StartTimer(const std::shared_ptr<Agenda>& agenda) {
    if (timer_ != 0) {
      killTimer(std::exchange(timer_, 0));
    }
    Loop::Time earliest;
    if (agenda && agenda->FindEarliest(earliest)) {
      // Rounded up: a timer that fires too early would only be set again.
      const auto wait = std::chrono::ceil<std::chrono::milliseconds>(earliest - Loop::Clock::now());
      const auto longest = std::chrono::milliseconds(std::chrono::hours(1));
      timer_ =
          startTimer(std::clamp(wait, std::chrono::milliseconds(0), longest), Qt::PreciseTimer);
    }
  }

  const std::weak_ptr<Agenda> agenda_;
  int timer_ = 0;
};

class QtLoop final : public Loop {
 public:
  ~QtLoop() override {
    if (IsCurrent()) {
      delete clerk_;
    } else {
      clerk_->deleteLater();
    }
  }

  bool IsCurrent() const override { return QThread::currentThread() == clerk_->thread(); }
  void Post(Function function) override {
    if (agenda_->Post(std::move(function))) {
      QCoreApplication::postEvent(clerk_, new QEvent(Clerk::RunPosted()));
    }
  }
  Time Now() const override { return Clock::now(); }
  void WakeAt(Time time, Function function) override {
    if (agenda_->Add(time, std::move(function))) {
      QCoreApplication::postEvent(clerk_, new QEvent(Clerk::SetTimer()));
    }
  }

 private:
  const std::shared_ptr<Agenda> agenda_ = std::make_shared<Agenda>();
  Clerk* const clerk_ = new Clerk(agenda_);
};

}  // namespace

Loop::~Loop() = default;

std::shared_ptr<Loop> Loop::OfThisThread() {
  thread_local std::weak_ptr<Loop> known;
  auto loop = known.lock();
  if (!loop) {
    loop = std::make_shared<QtLoop>();
    known = loop;
  }
  return loop;
}

}  // namespace tarv
