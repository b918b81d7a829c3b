// What the starter has told this process about itself.
#ifndef RUNTIME_MANAGER_HOST_ACTIVATION_H
#define RUNTIME_MANAGER_HOST_ACTIVATION_H

#include <QtCore/QString>

namespace RuntimeManager::host {

// The variable with the process id of a task without a socket; one with a socket has LISTEN_PID.
constexpr char kTaskVariable[] = "RUNTIME_MANAGER_TASK_PID";

// The descriptor that socket activation hands over first.
constexpr int kActivationSocket = 3;

struct Activation {
  int socket = -1;  // the listening socket of this task; -1 when the process is no task with one
  QString name;     // the task's name; that of the program when nobody gave one
};

// Reads the variables of a task on first use and removes them, so that no child of this process
// takes them for its own. Any thread.
const Activation& GetActivation();

// Nobody will serve this task's socket: whoever has connected to it hears of the end of the connection.
// The descriptor's number stays taken.
void AbandonActivationSocket();

// Whether a runtime manager has started this process as a task. Only looks, and only until
// GetActivation() was called.
bool IsTaskOfRuntimeManager();

inline QString OwnTaskName() { return GetActivation().name; }

}  // namespace RuntimeManager::host

#endif  // RUNTIME_MANAGER_HOST_ACTIVATION_H
