#include <tarv/calls/loop.h>

#include <QCoreApplication>
#include <QEvent>
#include <QObject>
#include <QThread>
#include <algorithm>
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

// The wakes of one thread. Any thread adds, the thread takes.
class Agenda {
 public:
  // True when the thread must set its timer anew.
  bool Add(Loop::Time time, Loop::Function&& function) {
    const std::lock_guard lock(mutex_);
    wakes_.push_back({time, ++number_, std::move(function)});
    std::push_heap(wakes_.begin(), wakes_.end(), IsLater);
    return wakes_.front().number == number_;
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
  std::vector<Wake> wakes_;
  std::uint64_t number_ = 0;
};

// Brings a function to the thread. Qt keeps such events in order, and destroys them with their
// receiver.
class FunctionEvent final : public QEvent {
 public:
  explicit FunctionEvent(Loop::Function function)
      : QEvent(GetType()), function_(std::move(function)) {}

  static QEvent::Type GetType() {
    static const int kType = QEvent::registerEventType();
    return static_cast<QEvent::Type>(kType);
  }
  void Run() const { function_(); }

 private:
  const Loop::Function function_;
};

// Stands in the thread for the loop: gets its events and has its one timer. Takes one function at a
// time, so that an event loop inside one runs the next.
class Clerk final : public QObject {
 public:
  explicit Clerk(std::weak_ptr<Agenda> agenda) : agenda_(std::move(agenda)) {}

  void SetTimer() {
    const auto agenda = agenda_.lock();
    if (timer_ != 0) {
      killTimer(std::exchange(timer_, 0));
    }
    Loop::Time earliest;
    if (agenda && agenda->FindEarliest(earliest)) {
      // Rounded up: a timer that fires too early would only be set again.
      const auto wait = std::chrono::ceil<std::chrono::milliseconds>(earliest - Loop::Clock::now());
      timer_ = startTimer(std::clamp(wait, kNow, kLongest), Qt::PreciseTimer);
    }
  }
  bool IsRunning() const { return running_ > 0; }

 protected:
  bool event(QEvent* event) override {
    const bool is_function = event->type() == FunctionEvent::GetType();
    if (!is_function && event->type() != QEvent::Timer) {
      return QObject::event(event);
    }
    ++running_;
    if (!is_function) {
      RunDue();
    } else if (!agenda_.expired()) {
      static_cast<const FunctionEvent*>(event)->Run();
    }
    --running_;
    return true;
  }

 private:
  static constexpr std::chrono::milliseconds kNow{0};
  static constexpr std::chrono::milliseconds kLongest = std::chrono::hours(1);

  void RunDue() {
    const auto agenda = agenda_.lock();
    const Loop::Function function = agenda ? agenda->TakeDue(Loop::Clock::now()) : Loop::Function();
    SetTimer();
    if (function) {
      function();
    }
  }

  const std::weak_ptr<Agenda> agenda_;
  int timer_ = 0;
  int running_ = 0;
};

class QtLoop final : public Loop {
 public:
  ~QtLoop() override {
    agenda_.reset();
    if (IsCurrent() && !clerk_->IsRunning()) {
      delete clerk_;
    } else {
      clerk_->deleteLater();
    }
  }

  bool IsCurrent() const override { return QThread::currentThread() == clerk_->thread(); }
  void Post(Function function) override {
    QCoreApplication::postEvent(clerk_, new FunctionEvent(std::move(function)));
  }
  Time Now() const override { return Clock::now(); }
  void WakeAt(Time time, Function function) override {
    if (agenda_->Add(time, std::move(function))) {
      Post([clerk = clerk_] { clerk->SetTimer(); });
    }
  }

 private:
  std::shared_ptr<Agenda> agenda_ = std::make_shared<Agenda>();
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
