#ifndef FAKE_RUNTIME_MANAGER_TASK_H
#define FAKE_RUNTIME_MANAGER_TASK_H

#include <RuntimeManager/Error.h>
#include <RuntimeManager/Journal.h>

#include <QFlags>
#include <QObject>
#include <QStringList>
#include <functional>
#include <new>
#include <utility>
#include <vector>

namespace RuntimeManager {

// Does nothing by itself: the test calls the completions that it was given.
class Task : public QObject {
  Q_OBJECT

 public:
  enum class StopFlag { Kill = 1 };
  Q_DECLARE_FLAGS(StopFlags, StopFlag)
  using Completion = std::function<void(const Error&)>;

  Task(QString task_name, QObject* parent) : QObject(parent), name(std::move(task_name)) {
    GetAll().push_back(this);
    Journal::Get().Write("Task " + name);
  }
  ~Task() override { Journal::Get().Write("~Task " + name); }

  void withIpcSocket(bool enabled) {
    Journal::Get().Write(enabled ? "withIpcSocket true" : "withIpcSocket false");
    has_socket = enabled;
  }
  void withArguments(const QStringList& list) {
    Journal::Get().Write("withArguments " + list.join('|'));
    arguments = list;
  }
  void start(Completion completion) {
    Journal::Get().Write("start " + name);
    if (IsOutOfMemory()) {
      throw std::bad_alloc();
    }
    complete_start = std::move(completion);
  }
  void stop(StopFlags flags, Completion completion) {
    Journal::Get().Write("stop " + name);
    if (on_stop) {
      on_stop();
    }
    stop_flags = flags;
    complete_stop = std::move(completion);
  }
  QString socketPath() const { return "/fake/" + name; }

  // Every task made since the test began, some of them perhaps destroyed.
  static std::vector<Task*>& GetAll() {
    static std::vector<Task*> tasks;
    return tasks;
  }

  // Whether starts find no memory.
  static bool& IsOutOfMemory() {
    static bool out_of_memory = false;
    return out_of_memory;
  }

  const QString name;
  bool has_socket = false;
  QStringList arguments;
  StopFlags stop_flags{StopFlag::Kill};
  Completion complete_start;
  Completion complete_stop;
  std::function<void()> on_stop;  // called as stop() begins

#ifdef FAKE_OPTIONAL_MEMBERS
 Q_SIGNALS:
  void finished(const RuntimeManager::Error& error);
#endif
};

}  // namespace RuntimeManager

#endif  // FAKE_RUNTIME_MANAGER_TASK_H
