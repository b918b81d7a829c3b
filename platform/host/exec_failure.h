// Why a program could not be run, for the person who has to mend it.
#ifndef RUNTIME_MANAGER_HOST_EXEC_FAILURE_H
#define RUNTIME_MANAGER_HOST_EXEC_FAILURE_H

#include <QtCore/QByteArray>
#include <QtCore/QString>

namespace RuntimeManager::host {

// What runs the program at `path`: the one that a script names behind "#!", or the loader of a
// binary of this machine. Empty when there is none, or the file cannot be read.
QByteArray InterpreterOf(const QByteArray& path);

// Says why the kernel refused to run the program at `path` with that error number. Names the path,
// and the interpreter if there is one.
QString ExecFailureText(const QByteArray& path, int error_number);

}  // namespace RuntimeManager::host

#endif  // RUNTIME_MANAGER_HOST_EXEC_FAILURE_H
