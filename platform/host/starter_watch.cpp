#include "starter_watch.h"

#include <unistd.h>

#include <QtCore/QTimer>
#include <atomic>
#include <csignal>

#include "activation.h"
#include "process_exit.h"
#include "support.h"

namespace RuntimeManager::host {
namespace {

// What stop() gives a task after SIGTERM.
constexpr int kGraceMs = 3000;
// How often it is looked; another process inherits the children of one that dies.
constexpr int kLookMs = 500;
// As a shell has it for a process that SIGTERM has ended.
constexpr int kStatus = 128 + SIGTERM;

void Leave() {
  Warn(QString("the task '%1' ends: its starter ended %2 seconds ago")
           .arg(OwnTaskName())
           .arg(kGraceMs / 1000));
  ProcessExit::Get().LeaveNow(kStatus);
}

void Look(QTimer* timer, pid_t starter) {
  if (::getppid() == starter || IsForkedCopy()) {
    return;
  }
  timer->stop();
  QTimer::singleShot(kGraceMs, timer, &Leave);
}

}  // namespace

void EndWithStarter() {
  static std::atomic<bool> is_watched{false};
  if (GetActivation().socket < 0 || is_watched.exchange(true)) {
    return;
  }
  static_cast<void>(IsForkedCopy());
  // Goes with the process, which keeps hold of it for tools that look for leaks.
  static auto* const timer = new QTimer;
  QObject::connect(timer, &QTimer::timeout, timer,
                   [starter = GetActivation().starter] { Look(timer, starter); });
  timer->start(kLookMs);
}

}  // namespace RuntimeManager::host
