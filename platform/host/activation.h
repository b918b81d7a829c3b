// What the starter has told this process about itself.
#ifndef RUNTIME_MANAGER_HOST_ACTIVATION_H
#define RUNTIME_MANAGER_HOST_ACTIVATION_H

#include <sys/types.h>

#include <QtCore/QString>

namespace RuntimeManager::host {

// The descriptor that socket activation hands over first.
constexpr int kActivationSocket = 3;

struct Activation {
  int socket = -1;     // the listening socket of this task; -1 when the process is no task with one
  pid_t starter = -1;  // the process that started this one
  QString name;        // the task's name; that of the program when nobody gave one
};

// Reads the variables of socket activation on first use and removes them, so that no child of this
// process takes them for its own. Any thread.
const Activation& GetActivation();

inline QString OwnTaskName() { return GetActivation().name; }

}  // namespace RuntimeManager::host

#endif  // RUNTIME_MANAGER_HOST_ACTIVATION_H
