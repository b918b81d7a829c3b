// What it takes to start a task, but for its socket.
#ifndef RUNTIME_MANAGER_HOST_TASK_REQUEST_H
#define RUNTIME_MANAGER_HOST_TASK_REQUEST_H

#include <RuntimeManager/Error.h>

#include <QtCore/QString>
#include <QtCore/QStringList>

#include "spawn.h"

namespace RuntimeManager::host {

// Finds the program of the task `name` and gives it its arguments. The error says why this process
// cannot start such a task, if it cannot. Any thread.
Error MakeTaskRequest(const QString& name, const QStringList& arguments, SpawnRequest* request);

}  // namespace RuntimeManager::host

#endif  // RUNTIME_MANAGER_HOST_TASK_REQUEST_H
