#include "helper_copies.h"

#include <RuntimeManager/Task.h>
#include <RuntimeManager/TaskMessaging.h>
#include <sys/wait.h>
#include <unistd.h>

#include <QtCore/QElapsedTimer>
#include <QtCore/QFile>
#include <atomic>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <functional>
#include <memory>
#include <thread>
#include <vector>

#include "crowd.h"
#include "helper_ends.h"

namespace helper {
namespace {

using namespace RuntimeManager;  // NOLINT(google-build-using-namespace)

constexpr int kLimitMs = 60000;
constexpr int kCopyLimitMs = 20000;
// Of the texts that threads send meanwhile: the lock is held for as long as one is copied.
constexpr int kEveryLong = 25;

bool ends_behind_this_event = false;

// Waits for a copy of this process; whether it ended by itself, with status 0.
bool EndsWell(pid_t copy, const std::function<void()>& wait) {
  QElapsedTimer timer;
  timer.start();
  int status = -1;
  while (::waitpid(copy, &status, WNOHANG) == 0) {
    if (timer.elapsed() > kCopyLimitMs) {
      ::kill(copy, SIGKILL);
      ::waitpid(copy, nullptr, 0);
      return false;
    }
    wait();
  }
  return status == 0;
}

void Turn() { QCoreApplication::processEvents(QEventLoop::AllEvents, 5); }

void Sleep() { std::this_thread::sleep_for(std::chrono::milliseconds(1)); }

template <typename Done>
bool RunUntil(const Done& done) {
  QElapsedTimer timer;
  timer.start();
  while (!done() && timer.elapsed() < kLimitMs) {
    Turn();
  }
  return done();
}

void StartWithSocket(Task* task) {
  task->withIpcSocket(true);
  bool runs = false;
  task->start([&runs](const Error& error) { runs = !error.isError(); });
  RunUntil([&runs] { return runs; });
}

// Copies that are made in handlers.
class CopiesInHandlers {
 public:
  explicit CopiesInHandlers(TaskMessaging* messaging) : messaging_(messaging) {
    QObject::connect(messaging, &TaskMessaging::dataReceived, messaging,
                     [this](const QByteArray&) { Handle(); });
  }
  bool AreDone() const { return copies_ == kCopies || !end_well_; }
  bool EndWell() const { return end_well_; }

 private:
  static constexpr int kCopies = 40;
  static constexpr int kOverTheBound = 100'000;
  static constexpr int kEvery = 20;
  // Longer than anything that is sent waits for another handler.
  static constexpr std::chrono::microseconds kLong{400};

  void Handle() {
    if (ends_at_next_handler_) {
      ::_exit(0);
    }
    if (ends_behind_this_event || ++handled_ % kEvery != 0 || AreDone()) {
      return;
    }
    messaging_->sendData("held");
    std::this_thread::sleep_for(kLong);
    const pid_t copy = ::fork();
    if (copy == 0) {
      GoOnAsCopy();
      return;
    }
    end_well_ = EndsWell(copy, Sleep);
    ++copies_;
  }
  // Every other copy sends.
  void GoOnAsCopy() {
    ends_behind_this_event = true;
    ends_at_next_handler_ = copies_ % 2 == 0;
    if (!ends_at_next_handler_) {
      messaging_->sendData("from a copy");
      messaging_->sendData(QByteArray(kOverTheBound, 'x'));
      messaging_->sendMessage({{"data", QString(kOverTheBound, 'x')}});
    }
  }

  TaskMessaging* messaging_;
  int handled_ = 0;
  int copies_ = 0;
  bool end_well_ = true;
  bool ends_at_next_handler_ = false;
};

// Threads that make and destroy tasks which nobody starts: little else than to take the lock of the list of tasks.
class Makers {
 public:
  explicit Makers(const QString& name) {
    for (int i = 0; i < 4; ++i) {
      threads_.emplace_back([this, name] {
        while (!stops_) {
          const Task passing(name);
        }
      });
    }
  }
  ~Makers() {
    stops_ = true;
    for (std::thread& thread : threads_) {
      thread.join();
    }
  }
  Makers(const Makers&) = delete;
  Makers& operator=(const Makers&) = delete;

 private:
  std::atomic<bool> stops_{false};
  std::vector<std::thread> threads_;
};

}  // namespace

bool Application::notify(QObject* receiver, QEvent* event) {
  const bool is_taken = QCoreApplication::notify(receiver, event);
  if (ends_behind_this_event) {
    ::_exit(0);
  }
  return is_taken;
}

int ForkWhileSending(const QString& name, const QString& how) {
  constexpr int kCopies = 10;
  kit::Share share;
  share.texts = 3000;
  share.long_every = kEveryLong;
  static Task task(name);
  StartWithSocket(&task);
  static TaskMessaging messaging(task.socketPath());
  // One that is no static object.
  const auto unused = std::make_unique<Task>(name);
  kit::Tally tally(share);
  tally.Watch(&messaging);
  bool is_lost = false;
  QObject::connect(&task, &Task::finished, [&is_lost] { is_lost = true; });
  // Not destroyed in a copy, which does not have its threads.
  auto* crowd = new kit::Crowd(&messaging, share);
  bool copies_end_well = true;
  for (int i = 0; i < kCopies; ++i) {
    const pid_t copy = ::fork();
    if (copy == 0 && how == "exit") {
      std::exit(0);
    }
    if (copy == 0) {
      return 0;
    }
    copies_end_well = EndsWell(copy, Turn) && copies_end_well;
  }
  const bool is_whole = RunUntil([&tally, &is_lost] { return tally.IsWhole() || is_lost; });
  delete crowd;
  const bool has_file = QFile::exists(task.socketPath());
  Say(QString("copies %1 whole %2 lost %3 file %4 %5")
          .arg(copies_end_well)
          .arg(is_whole)
          .arg(is_lost)
          .arg(has_file)
          .arg(QString::fromUtf8(tally.Faults())));
  return 0;
}

int ForkInHandlers(const QString& name) {
  // More than are sent while copies are made: a copy is to be left with locks that are held.
  const kit::Share share{400'000, 10'000, 1000};
  Task task(name);
  StartWithSocket(&task);
  TaskMessaging messaging(task.socketPath());
  CopiesInHandlers copies(&messaging);
  kit::Crowd crowd(&messaging, share);
  RunUntil([&copies] { return copies.AreDone(); });
  crowd.Stop();
  Say(QString("done %1 well %2").arg(copies.AreDone()).arg(copies.EndWell()));
  return 0;
}

int ForkWhileMakingTasks(const QString& name) {
  constexpr int kCopies = 300;
  auto task = std::make_unique<Task>(name);
  StartWithSocket(task.get());
  auto messaging = std::make_unique<TaskMessaging>(task->socketPath());
  const Makers makers(name);
  bool copies_end_well = true;
  for (int i = 0; i < kCopies && copies_end_well; ++i) {
    const pid_t copy = ::fork();
    if (copy == 0) {
      i % 2 == 0 ? task.reset() : messaging.reset();
      ::_exit(0);
    }
    copies_end_well = EndsWell(copy, Sleep);
  }
  Say(QString("well %1").arg(copies_end_well));
  return 0;
}

}  // namespace helper
