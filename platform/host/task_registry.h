// The tasks that this process has started, and the connections to them.
#ifndef RUNTIME_MANAGER_HOST_TASK_REGISTRY_H
#define RUNTIME_MANAGER_HOST_TASK_REGISTRY_H

#include <RuntimeManager/Error.h>

#include <QtCore/QObject>
#include <QtCore/QString>
#include <map>
#include <memory>
#include <mutex>
#include <vector>

#include "unique_fd.h"

namespace RuntimeManager::host {

// A connection to a task, which the end of the task concerns.
class TaskWatcher {
 public:
  virtual ~TaskWatcher() = default;
  // Deliver what the task has sent by now.
  virtual void DrainTask() = 0;
  // The task has ended; `why` says how.
  virtual void OnTaskEnded(const Error& why) = 0;
};

// One per process; any thread. Tasks are known by the paths of their sockets.
class TaskRegistry {
 public:
  static TaskRegistry& Get();

  // `first` is the starter's own connection to the task. It waits for TakeConnection(), and closes
  // with RemoveTask().
  void AddTask(const QString& path, const QString& name, UniqueFd first);
  void RemoveTask(const QString& path);
  // The first connection to the task; invalid when it was taken, and for a task of another process.
  UniqueFd TakeConnection(const QString& path);
  bool HasTask(const QString& path) const;
  // The task's name; the path itself for a task of another process.
  QString NameOf(const QString& path) const;

  // `context` is an object of the watcher's thread. Both stay until Unwatch().
  void Watch(const QString& path, std::weak_ptr<TaskWatcher> watcher, QObject* context);
  void Unwatch(const QObject* context);

  // Drains the watchers of this thread.
  void DrainTask(const QString& path);
  // Tells the watchers of this thread now, those of others from their event loops.
  void TellEnded(const QString& path, const Error& why);

 private:
  struct Task {
    QString name;
    UniqueFd first;
  };
  struct Entry {
    QString path;
    std::weak_ptr<TaskWatcher> watcher;
    QObject* context;
  };
  using Watchers = std::vector<std::weak_ptr<TaskWatcher>>;
  Watchers WatchersOfThisThread(const QString& path) const;

  mutable std::mutex mutex_;
  std::map<QString, Task> tasks_;
  std::vector<Entry> watchers_;
};

}  // namespace RuntimeManager::host

#endif  // RUNTIME_MANAGER_HOST_TASK_REGISTRY_H
