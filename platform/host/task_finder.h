// Where the programs of tasks are.
#ifndef RUNTIME_MANAGER_HOST_TASK_FINDER_H
#define RUNTIME_MANAGER_HOST_TASK_FINDER_H

#include <RuntimeManager/Error.h>

#include <QtCore/QString>
#include <QtCore/QStringList>

namespace RuntimeManager::host {

// The path of the executable of task `name`: the first in RUNTIME_MANAGER_TASK_PATH, tasks/ beside
// the running executable, and the installed folder of tasks. Empty, with `error` set, when there is
// none or the name is no name; the error lists what was found and where it was looked for.
QString FindTask(const QString& name, Error* error);

// The folders that tasks are looked for in, in order.
QStringList TaskFolders();

// Says what is wrong with the file at `path`; empty when it is a program, or when there is no file.
QString WhyNotProgram(const QString& path, bool* exists);

// The path of a program as a shell finds it: as it is with a slash, else in the folders of PATH.
// Empty when there is none.
QString FindProgram(const QString& program);

}  // namespace RuntimeManager::host

#endif  // RUNTIME_MANAGER_HOST_TASK_FINDER_H
