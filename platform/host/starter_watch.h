// Ends a task whose starter is no more.
#ifndef RUNTIME_MANAGER_HOST_STARTER_WATCH_H
#define RUNTIME_MANAGER_HOST_STARTER_WATCH_H

namespace RuntimeManager::host {

// A task hears SIGTERM when its starter dies. One that ignores it, or blocks it, ends itself three
// seconds later, as soon as its event loop turns: nobody is left to stop it. Call it on a thread with
// an event loop, which then sees to it; the first call counts, and only in a task.
void EndWithStarter();

}  // namespace RuntimeManager::host

#endif  // RUNTIME_MANAGER_HOST_STARTER_WATCH_H
