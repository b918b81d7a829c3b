// What a child does between vfork and exec.
#ifndef RUNTIME_MANAGER_HOST_SPAWN_CHILD_H
#define RUNTIME_MANAGER_HOST_SPAWN_CHILD_H

#include <sys/types.h>

#include <cstddef>

#include "activation.h"

namespace RuntimeManager::host {

// In the child: 0 to 2 are the standard ones, 3 the socket, 4 tells that exec failed.
constexpr int kStatusDescriptor = kActivationSocket + 1;
constexpr int kFirstUnused = kStatusDescriptor + 1;
constexpr std::size_t kPidDigits = 20;

// Everything that the child needs, made before it is: until exec it is in the starter's memory, where it
// may allocate nothing, because another thread may hold a lock of the allocator, and writes only
// what is here for it.
struct ChildPlan {
  const char* program = nullptr;
  char* const* arguments = nullptr;
  char* const* environment = nullptr;
  char* pid_digits = nullptr;  // where the child writes its process id
  int null_device = -1;
  int listen_socket = -1;
  int stderr_pipe = -1;
  int status = -1;
  pid_t starter = -1;
  bool dies_with_starter = true;
};

// Becomes the program, or writes the error number to `status` and ends the process. Async-signal-safe,
// as everything between vfork and exec must be.
[[noreturn]] void RunChild(const ChildPlan& plan);

}  // namespace RuntimeManager::host

#endif  // RUNTIME_MANAGER_HOST_SPAWN_CHILD_H
