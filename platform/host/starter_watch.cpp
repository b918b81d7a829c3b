#include "starter_watch.h"

#include <unistd.h>

#include <QtCore/QSocketNotifier>
#include <QtCore/QTimer>
#include <atomic>
#include <csignal>
#include <memory>

#include "activation.h"
#include "child_handle.h"
#include "process_exit.h"
#include "support.h"

namespace RuntimeManager::host {
namespace {

// What stop() gives a task after SIGTERM.
constexpr int kGraceMs = 3000;
// How often it is looked where nothing tells.
constexpr int kLookMs = 500;
// As a shell has it for a process that SIGTERM has ended.
constexpr int kStatus = 128 + SIGTERM;

void Leave() {
  Warn(QString("the task '%1' ends: its starter ended %2 seconds ago")
           .arg(OwnTaskName())
           .arg(kGraceMs / 1000));
  ProcessExit::Get().LeaveNow(kStatus);
}

// Another process inherits the children of one that dies.
bool HasStarter() { return ::getppid() == GetActivation().starter || IsForkedCopy(); }

// Both live as long as the process, which keeps hold of them for tools that look for leaks.
struct Watch {
  UniqueFd starter;
  std::unique_ptr<QSocketNotifier> ended;
  QTimer timer;
};

void LeaveSoon(Watch* watch) {
  watch->timer.stop();
  QTimer::singleShot(kGraceMs, &watch->timer, &Leave);
}

void LookFromTimeToTime(Watch* watch) {
  QObject::connect(&watch->timer, &QTimer::timeout, &watch->timer, [watch] {
    if (!HasStarter()) {
      LeaveSoon(watch);
    }
  });
  watch->timer.start(kLookMs);
}

// The descriptor costs each turn of the event loop less than a timer does, and wakes nobody.
void WaitForItsEnd(Watch* watch) {
  watch->ended = std::make_unique<QSocketNotifier>(watch->starter.Get(), QSocketNotifier::Read);
  QObject::connect(watch->ended.get(), &QSocketNotifier::activated, &watch->timer, [watch] {
    watch->ended->setEnabled(false);
    if (!IsForkedCopy()) {
      LeaveSoon(watch);
    }
  });
}

}  // namespace

void EndWithStarter() {
  static std::atomic<bool> is_watched{false};
  if (GetActivation().socket < 0 || is_watched.exchange(true)) {
    return;
  }
  static_cast<void>(IsForkedCopy());
  static auto* const watch = new Watch;
  watch->starter = OpenProcess(GetActivation().starter);
  // A number that belongs to the starter now did so when it was used.
  if (!HasStarter()) {
    LeaveSoon(watch);
  } else if (watch->starter.IsValid()) {
    WaitForItsEnd(watch);
  } else {
    LookFromTimeToTime(watch);
  }
}

}  // namespace RuntimeManager::host
