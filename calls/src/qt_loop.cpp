#include <qt/internal/start_timer.h>
#include <tarv/calls/loop.h>

#include <QCoreApplication>
#include <QEvent>
#include <QObject>
#include <QThread>
#include <algorithm>
#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>
#include <new>
#include <thread>
#include <unordered_map>
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
  // Its number when it is the earliest, so that the thread must set its timer anew; else 0.
  std::uint64_t Add(Loop::Time time, Loop::Function&& function) {
    const std::lock_guard lock(mutex_);
    wakes_.push_back({time, ++number_, std::move(function)});
    std::push_heap(wakes_.begin(), wakes_.end(), IsLater);
    return wakes_.front().number == number_ ? number_ : 0;
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
  void Drop(std::uint64_t number) {
    Loop::Function function;  // destroyed after unlocking
    const std::lock_guard lock(mutex_);
    const auto found = std::find_if(wakes_.begin(), wakes_.end(),
                                    [number](const Wake& wake) { return wake.number == number; });
    if (found != wakes_.end()) {
      function.swap(found->function);
      wakes_.erase(found);
      std::make_heap(wakes_.begin(), wakes_.end(), IsLater);
    }
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

class Clerk;

// A timer of a clerk's, which fires until it is stopped.
class Ticker final : public QObject {
 public:
  explicit Ticker(Clerk& clerk) : clerk_(clerk) {}

  // Throws std::bad_alloc: it does not run then. It must be stopped.
  void Start(std::chrono::milliseconds wait) {
    timer_ = qt::details::StartTimer(*this, wait, Qt::PreciseTimer);
  }
  // Nothing, when it does not run.
  void Stop() { killTimer(std::exchange(timer_, 0)); }
  bool IsRunning() const { return timer_ != 0; }

 protected:
  void timerEvent(QTimerEvent* event) override;

 private:
  Clerk& clerk_;
  int timer_ = 0;
};

// Stands in the thread for the loop: gets its events and has its one timer. Takes one function at a
// time, so that an event loop inside one runs the next.
class Clerk final : public QObject {
 public:
  explicit Clerk(std::weak_ptr<Agenda> agenda) : agenda_(std::move(agenda)) {}
  // With what Qt still has for it.
  ~Clerk() override { SeeHandedOver(); }
  Clerk(const Clerk&) = delete;
  Clerk& operator=(const Clerk&) = delete;

  // Any thread.
  void HandOver(Loop::Function function) {
    auto event = std::make_unique<FunctionEvent>(std::move(function));
    handed_over_.fetch_add(1, std::memory_order_release);
    QCoreApplication::postEvent(this, event.release());
  }

  // Throws std::bad_alloc: the timer that runs goes on then, and when it fires it is tried again.
  void SetTimer() {
    const auto agenda = agenda_.lock();
    Loop::Time earliest;
    has_wakes_ = agenda && agenda->FindEarliest(earliest);
    if (has_wakes_) {
      // Rounded up: a timer that fires too early would only be set again.
      const auto wait = std::chrono::ceil<std::chrono::milliseconds>(earliest - Loop::Clock::now());
      next_->Start(std::clamp(wait, kNow, kLongest));
    }
    ticker_->Stop();
    std::swap(ticker_, next_);
  }
  void TrySetTimer() noexcept {
    try {
      SetTimer();
    } catch (const std::bad_alloc&) {
    }
  }
  void RunDue() {
    const Run run(running_);
    const auto agenda = agenda_.lock();
    const Loop::Function function = agenda ? agenda->TakeDue(Loop::Clock::now()) : Loop::Function();
    TrySetTimer();
    if (function) {
      function();
    }
  }
  bool IsRunning() const { return running_ > 0; }

 protected:
  bool event(QEvent* event) override {
    SeeHandedOver();
    if (event->type() != FunctionEvent::GetType()) {
      return QObject::event(event);
    }
    const Run run(running_);
    if (has_wakes_ && !ticker_->IsRunning()) {
      TrySetTimer();
    }
    if (!agenda_.expired()) {
      static_cast<const FunctionEvent*>(event)->Run();
    }
    return true;
  }

 private:
  // What a thread hands over happens before it is run. Qt's own lock sees to that, but the thread
  // sanitizer does not see Qt's lock.
  void SeeHandedOver() const { static_cast<void>(handed_over_.load(std::memory_order_acquire)); }

  static constexpr std::chrono::milliseconds kNow{0};
  static constexpr std::chrono::milliseconds kLongest = std::chrono::hours(1);

  // Counts the functions that run inside each other, also when one throws.
  class Run {
   public:
    explicit Run(int& running) : running_(running) { ++running_; }
    ~Run() { --running_; }
    Run(const Run&) = delete;
    Run& operator=(const Run&) = delete;

   private:
    int& running_;
  };

  const std::weak_ptr<Agenda> agenda_;
  Ticker first_{*this};
  Ticker second_{*this};
  Ticker* ticker_ = &first_;  // runs
  Ticker* next_ = &second_;   // runs when the timer is set the next time
  bool has_wakes_ = false;    // when the timer was set
  int running_ = 0;
  std::atomic<std::uint32_t> handed_over_{0};  // events so far
};

void Ticker::timerEvent(QTimerEvent* /*event*/) { clerk_.RunDue(); }

// The loops there are, by their threads. No thread_local: the C library ends the process when it
// finds no memory to destroy one at the thread's end.
struct Registry {
  std::mutex mutex;
  std::unordered_map<std::thread::id, std::weak_ptr<Loop>> loops;
};

// Never destroyed: objects that outlive main() may ask for their loop.
Registry& GetRegistry() {
  static auto* const registry = new Registry;
  return *registry;
}

// Unless the thread has another loop by now, or another thread the number.
void ForgetLoopOf(std::thread::id thread) {
  Registry& registry = GetRegistry();
  const std::lock_guard lock(registry.mutex);
  const auto found = registry.loops.find(thread);
  if (found != registry.loops.end() && found->second.expired()) {
    registry.loops.erase(found);
  }
}

class QtLoop final : public Loop {
 public:
  ~QtLoop() override {
    ForgetLoopOf(maker_);
    agenda_.reset();
    const bool is_idle = IsCurrent() && !clerk_->IsRunning();
    if (is_idle || HasThreadEnded()) {
      delete clerk_;
    } else {
      clerk_->deleteLater();
    }
  }

  // The number comes first: on a thread that is not its own, Qt makes itself an object, and crashes
  // when memory runs out for that. It does not suffice: an ended thread leaves it to a new one.
  bool IsCurrent() const override {
    return std::this_thread::get_id() == maker_ && QThread::currentThread() == clerk_->thread();
  }
  void Post(Function function) override { clerk_->HandOver(std::move(function)); }
  Time Now() const override { return Clock::now(); }
  void WakeAt(Time time, Function function) override {
    const std::uint64_t earliest = agenda_->Add(time, std::move(function));
    if (earliest == 0) {
      return;
    }
    try {
      SetTimer();
    } catch (const std::bad_alloc&) {
      agenda_->Drop(earliest);
      throw;
    }
  }

 private:
  // No event loop would see to anything later then.
  bool HasThreadEnded() const {
    const QThread* const thread = clerk_->thread();
    return thread == nullptr || thread->isFinished();
  }
  void SetTimer() {
    if (IsCurrent()) {
      clerk_->SetTimer();
    } else {
      Post([clerk = clerk_] { clerk->TrySetTimer(); });
    }
  }

  const std::thread::id maker_ = std::this_thread::get_id();
  std::shared_ptr<Agenda> agenda_ = std::make_shared<Agenda>();
  // A plain `new` here leaks when the constructor throws: GCC 12 does not give its memory back.
  Clerk* const clerk_ = std::make_unique<Clerk>(agenda_).release();
};

}  // namespace

Loop::~Loop() = default;

std::shared_ptr<Loop> Loop::OfThisThread() {
  Registry& registry = GetRegistry();
  std::shared_ptr<Loop> stale;  // destroyed after unlocking
  const std::lock_guard lock(registry.mutex);
  const auto known = registry.loops.try_emplace(std::this_thread::get_id()).first;
  auto loop = known->second.lock();
  // A thread that has ended leaves its number to a new one.
  if (loop && loop->IsCurrent()) {
    return loop;
  }
  stale.swap(loop);
  try {
    loop = std::make_shared<QtLoop>();
  } catch (...) {
    registry.loops.erase(known);
    throw;
  }
  known->second = loop;
  return loop;
}

}  // namespace tarv
