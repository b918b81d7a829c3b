// The words of a task's end.
#ifndef RUNTIME_MANAGER_HOST_TASK_END_H
#define RUNTIME_MANAGER_HOST_TASK_END_H

#include <RuntimeManager/Error.h>
#include <sys/types.h>

#include <QtCore/QByteArray>
#include <QtCore/QString>

#include "child_process.h"

namespace RuntimeManager::host {

// "the task 'echo' (process 12)"
QString TaskTitle(const QString& name, pid_t process);

// Why the program of that path never ran as the task. When memory runs out, too, with plainer words.
Error WhyNeverRan(const QString& name, const QByteArray& program, const ChildEnd& end);

// How the task ended that ran as that process, and its last words. The same holds.
Error WhyEnded(const QString& name, pid_t process, const ChildEnd& end);

}  // namespace RuntimeManager::host

#endif  // RUNTIME_MANAGER_HOST_TASK_END_H
