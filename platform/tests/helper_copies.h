// Processes that fork copies of themselves, which do not have the threads of the original: a lock that one of
// those holds is held in the copy for ever.
#ifndef RUNTIME_MANAGER_TESTS_HELPER_COPIES_H
#define RUNTIME_MANAGER_TESTS_HELPER_COPIES_H

#include <QtCore/QCoreApplication>
#include <QtCore/QEvent>
#include <QtCore/QString>

namespace helper {

// In a copy that shall, it ends the process behind the event in which the copy was made.
class Application : public QCoreApplication {
 public:
  using QCoreApplication::QCoreApplication;
  bool notify(QObject* receiver, QEvent* event) override;
};

// Makes copies of itself, which end by exit() or by a return from main(), while eight threads send
// to a task that sends everything back; tells whether the task has remained unharmed.
int ForkWhileSending(const QString& task, const QString& how);
// Makes copies of itself in handlers that have just sent something, while eight threads send to a task
// that sends everything back. Each copy goes on to the next handler of the read or to its end.
int ForkInHandlers(const QString& task);
// Makes copies of itself, which destroy a task or its messaging, while four threads make and destroy
// tasks.
int ForkWhileMakingTasks(const QString& task);

}  // namespace helper

#endif  // RUNTIME_MANAGER_TESTS_HELPER_COPIES_H
