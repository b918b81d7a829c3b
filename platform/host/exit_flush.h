// What a task has sent and the socket has not taken yet, at the task's end.
#ifndef RUNTIME_MANAGER_HOST_EXIT_FLUSH_H
#define RUNTIME_MANAGER_HOST_EXIT_FLUSH_H

#include <memory>

namespace RuntimeManager::host {

class LineChannel;

// Makes the process, when it ends by exit() or a return from main() on the calling thread, wait
// until the peer of `channel` has taken what waits for it: for two seconds at most, and not for a
// peer that has gone. Call it on the thread that made the channel.
void FlushAtExit(const std::shared_ptr<LineChannel>& channel);

}  // namespace RuntimeManager::host

#endif  // RUNTIME_MANAGER_HOST_EXIT_FLUSH_H
