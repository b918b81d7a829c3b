// RuntimeManager::Task: one background process that this process starts, watches and stops.
#ifndef RUNTIME_MANAGER_TASK_H
#define RUNTIME_MANAGER_TASK_H

#include <RuntimeManager/Error.h>
#include <RuntimeManager/Export.h>

#include <QtCore/QFlags>
#include <QtCore/QObject>
#include <QtCore/QStringList>
#include <functional>
#include <memory>

namespace RuntimeManager {

// Belongs to the thread that made it, and that thread must run a Qt event loop: every completion
// and signal arrives from there, never from inside the call that asked for it.
//
// A task also hears SIGTERM when the thread that called start() ends: start tasks on a thread that
// lives as long as they shall. One that ignores it ends itself 3 seconds later, as soon as its event
// loop turns, if this library is loaded in it.
//
// When the application leaves, by exit() too, all its tasks are told at once, and one deadline of 3
// seconds holds for all. A forked copy of the process does nothing to them; what it begins itself,
// with any class of the runtime manager, is refused (kWrongState).
//
// Tasks end with the application object in whose time they were started. Objects that outlive it hear
// nothing more, but for stop(), which completes in the next application's event loop.
//
// Destroying a Task whose process still runs asks the process to end (SIGTERM, then SIGKILL) and
// forgets it: no completion is called and nothing is emitted any more. A Task may be destroyed from
// inside any of its own completions and signals.
class RUNTIME_MANAGER_EXPORT Task : public QObject {
  Q_OBJECT

 public:
  enum class StopFlag {
    Kill = 1,  // do not ask: end the process at once
  };
  Q_DECLARE_FLAGS(StopFlags, StopFlag)

  using Completion = std::function<void(const Error&)>;

  // `name` says which program: 1 to 128 of A-Z a-z 0-9 . _ - without a leading dot. It is checked
  // by start().
  explicit Task(const QString& name, QObject* parent = nullptr);
  ~Task() override;

  // Whether start() makes a socket for messages; it does not unless asked. Before start().
  void withIpcSocket(bool enabled);
  // The arguments behind the program's name on its command line. Before start().
  void withArguments(const QStringList& arguments);

  // Starts the process. `completion` gets no error once the program runs, else why it does not. A
  // Task starts at most once in its life: further calls complete with kWrongState.
  void start(Completion completion);

  // Asks the process to end: SIGTERM, and SIGKILL for one that is still there 3 seconds later (at
  // once with Kill). `completion` is called when the process is gone and reaped; without error too
  // when it had already ended. Calls while it is stopping complete with the first one; one with
  // Kill shortens the wait. kWrongState for a task that was never started.
  void stop(StopFlags flags, Completion completion);

  // The full path of the task's socket: from a start() with a socket on, empty before. The first
  // TaskMessaging of the path takes the starter's connection, which is there already: messages can
  // be sent before the process reads its first byte.
  QString socketPath() const;

 Q_SIGNALS:
  // A task that had started has ended, and nobody asked it to. Emitted once at most; every message
  // that had left the task has been delivered by then. Messages that still waited in the task's
  // memory, because the socket was full, are sent when the task ends by exit() or returns from
  // main(), within two seconds; a task that is killed takes them along. `error` says how it ended
  // and what it last wrote to its standard error.
  void finished(const RuntimeManager::Error& error);

 private:
  class Private;
  std::unique_ptr<Private> d_;
};

Q_DECLARE_OPERATORS_FOR_FLAGS(Task::StopFlags)

}  // namespace RuntimeManager

#endif  // RUNTIME_MANAGER_TASK_H
