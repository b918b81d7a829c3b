// What a client of a task knows beside vorpc::IClient: the task's name, and the manager's end.
//
//   if (auto* const task = dynamic_cast<tarv::ITaskClient*>(client.get())) {
//     task->OnManagerEnded([](tarv::EndedManager) { ... });
//   }
#ifndef TARV_TASK_CLIENT_H
#define TARV_TASK_CLIENT_H

#include <quarn/export.h>

#include <functional>
#include <string>

namespace tarv {

// The service is one for all of a process: the end of any ManagerWrapper ends the tasks of all.
enum class EndedManager { kOwn, kAnother };

// Implemented by the clients that ManagerWrapper::CreateIpcClient gives, beside vorpc::IClient.
class TARV_EXPORT ITaskClient {
 public:
  virtual ~ITaskClient();

  // The name that the task was started by. Any thread.
  virtual const std::string& GetTaskName() const = 0;

  // Calls `callback` once when a ManagerWrapper is destroyed and this client's task ends with it:
  // the one that made the client, or another one of the process. No callback of vorpc::IClient
  // tells that. It runs inside that destructor, on its thread, and what it throws is logged; when
  // the end has come already it runs at once, on this thread. It may let go of the client: once the
  // user's last reference is gone no further callback begins. Any thread.
  virtual void OnManagerEnded(std::function<void(EndedManager)>&& callback) = 0;
};

}  // namespace tarv

#endif  // TARV_TASK_CLIENT_H
