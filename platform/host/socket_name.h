// What the socket files of tasks are called: <starter's process id>-<its start time>-<number>.sock.
#ifndef RUNTIME_MANAGER_HOST_SOCKET_NAME_H
#define RUNTIME_MANAGER_HOST_SOCKET_NAME_H

#include <QtCore/QString>

namespace RuntimeManager::host {

// A name that no other process uses, now or later. Any thread, as all here.
QString UniqueSocketName();

// The name that a socket has until its first connection is made.
QString HiddenSocketName(const QString& name);
bool IsHiddenSocketName(const QString& file);

// Whether `file` is the name of a task's socket, hidden or not.
bool IsSocketName(const QString& file);

// Whether `file` is such a name, of a starter that is no more, as far as this process can see: it
// does not see those of another pid namespace.
bool HasNoStarter(const QString& file);

}  // namespace RuntimeManager::host

#endif  // RUNTIME_MANAGER_HOST_SOCKET_NAME_H
