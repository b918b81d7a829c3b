// Starting a program: vfork and exec, without what a shell or a process class would add.
#ifndef RUNTIME_MANAGER_HOST_SPAWN_H
#define RUNTIME_MANAGER_HOST_SPAWN_H

#include <sys/types.h>

#include <QtCore/QByteArray>
#include <QtCore/QList>

#include "unique_fd.h"

namespace RuntimeManager::host {

struct SpawnRequest {
  QByteArray program;  // the path of the executable, also its own name
  QList<QByteArray> arguments;
  QByteArray task_name;           // empty for a program that is no task
  int listen_socket = -1;         // becomes descriptor 3, as socket activation has it; -1: none
  bool dies_with_starter = true;  // SIGTERM when the starting thread ends
  bool capture_stderr = true;     // through a pipe; else it is the starter's
};

struct Spawned {
  pid_t pid = -1;
  // Gives the error number (an int) when the program could not be run, and the end of the file once
  // it runs. Does not block.
  UniqueFd exec_status;
  UniqueFd stderr_pipe;  // does not block; invalid unless captured
};

// Whether children of this process see it: they do not once it has called unshare() for a pid
// namespace of theirs.
bool IsSeenByChildren();

// Starts the program with /dev/null for input, the starter's standard output, no other descriptor,
// no blocked signal and every disposition the default. Returns an error number, 0 for none.
int Spawn(const SpawnRequest& request, Spawned* spawned);

}  // namespace RuntimeManager::host

#endif  // RUNTIME_MANAGER_HOST_SPAWN_H
