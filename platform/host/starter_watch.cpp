// Ends a task whose starter is no more.
//
// A task hears SIGTERM when its starter dies. One that ignores it, or blocks it, ends itself three
// seconds later, as soon as the event loop of its application turns: nobody is left to stop it. It
// takes nothing but this library to be loaded.
#include <unistd.h>

#include <QtCore/QCoreApplication>
#include <QtCore/QTimer>
#include <csignal>
#include <memory>

#include "activation.h"
#include "child_handle.h"
#include "process_exit.h"
#include "quiet_notifier.h"
#include "support.h"
#include "want_of_memory.h"

namespace RuntimeManager::host {
namespace {

// What stop() gives a task after SIGTERM.
constexpr int kGraceMs = 3000;
// How often it is looked where nothing tells.
constexpr int kLookMs = 500;
// As a shell has it for a process that SIGTERM has ended.
constexpr int kStatus = 128 + SIGTERM;

// When the library was loaded. A starter that died before ended the task with it: no line of the
// task's own had run, to ignore the signal.
const pid_t starter = ::getppid();
const pid_t self = ::getpid();

void Leave() {
  Warn(QString("the task '%1' ends: its starter ended %2 seconds ago")
           .arg(OwnTaskName())
           .arg(kGraceMs / 1000));
  ProcessExit::Get().LeaveNow(kStatus);
}

// Another process inherits the children of one that dies. A forked copy is no task.
bool HasStarter() { return ::getppid() == starter || ::getpid() != self; }

// Goes with the application object whose event loop it needs.
class Watch : public QObject {
 public:
  explicit Watch(QObject* application);

 private:
  void WaitForItsEnd();
  void LookFromTimeToTime();
  void LeaveSoon();

  const UniqueFd starter_ = OpenProcess(starter);
  std::unique_ptr<QuietNotifier> ended_;
  QTimer look_;
  QTimer grace_;
};

Watch::Watch(QObject* application) : QObject(application) {
  grace_.setSingleShot(true);
  connect(&grace_, &QTimer::timeout, this, &Leave);
  // A number that belongs to the starter now did so when it was used.
  if (!HasStarter()) {
    LeaveSoon();
  } else if (starter_.IsValid()) {
    WaitForItsEnd();
  } else {
    LookFromTimeToTime();
  }
}

// The descriptor costs each turn of the event loop less than a timer does, and wakes nobody.
void Watch::WaitForItsEnd() {
  ended_ = std::make_unique<QuietNotifier>(starter_.Get(), [this] {
    ended_->SetEnabled(false);
    if (::getpid() == self) {
      LeaveSoon();
    }
  });
}

void Watch::LookFromTimeToTime() {
  connect(&look_, &QTimer::timeout, this, [this] {
    if (!HasStarter()) {
      look_.stop();
      LeaveSoon();
    }
  });
  StartTimer(look_, kLookMs);
}

// Without memory for a timer nobody would come back to it.
void Watch::LeaveSoon() {
  if (!Attempt([this] { StartTimer(grace_, kGraceMs); })) {
    Leave();
  }
}

// With every application object of the process, or at once if there is one.
void WatchStarter() {
  QCoreApplication* const application = QCoreApplication::instance();
  Post(application, [application] { new Watch(application); });
}

void WatchStarterOfTask() {
  if (IsTaskOfRuntimeManager()) {
    qAddPreRoutine(&WatchStarter);
  }
}
Q_CONSTRUCTOR_FUNCTION(WatchStarterOfTask)

}  // namespace
}  // namespace RuntimeManager::host
