// Writing to a socket that does not block.
#ifndef RUNTIME_MANAGER_HOST_SOCKET_WRITES_H
#define RUNTIME_MANAGER_HOST_SOCKET_WRITES_H

#include <sys/types.h>
#include <sys/uio.h>

#include <chrono>
#include <cstddef>

#include "out_line.h"

namespace RuntimeManager::host {

// One gathered write, as sendmsg() has it. Never raises SIGPIPE. Any thread, as all here.
ssize_t SendParts(int socket, iovec* parts, std::size_t count);

// Whether the peer makes room before the time is over.
bool WaitForRoom(int socket, std::chrono::steady_clock::time_point until);

// Sends what the socket takes of the line, and waits for a reader that is reading while there is
// much left that would have to be copied. An error is for the next try, which meets it again.
void SendPatiently(int socket, OutLine* line);

}  // namespace RuntimeManager::host

#endif  // RUNTIME_MANAGER_HOST_SOCKET_WRITES_H
