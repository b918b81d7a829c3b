// What this process does when it ends: in one place, and in one order.
#ifndef RUNTIME_MANAGER_HOST_PROCESS_EXIT_H
#define RUNTIME_MANAGER_HOST_PROCESS_EXIT_H

#include <RuntimeManager/Error.h>

#include <QtCore/QByteArray>
#include <chrono>
#include <memory>
#include <mutex>
#include <set>
#include <utility>
#include <vector>

namespace RuntimeManager::host {

class ChildProcess;
class SendQueue;

// Whether this process is a forked copy of the one that began to use the host. A copy owns nothing
// of what it inherits: that is the original's to send, to signal and to remove. It takes no lock
// either, because a thread that the copy does not have may hold it.
bool IsForkedCopy();
// Why this process can begin nothing with the host: it is a copy. No error in the original.
Error CheckOriginal();

// One per process; any thread. When the process ends by exit() or a return from main(), it
//   1. sends what has not left yet,
//   2. ends the children: all are told at once, and one deadline holds for all,
//   3. removes the socket files.
// A forked copy does none of it.
class ProcessExit {
 public:
  using Patience = std::chrono::milliseconds;

  static ProcessExit& Get();

  // Keeps the queue until it is removed. `patience` is how long the process waits for the peer to
  // take what waits for it.
  void AddQueue(const std::shared_ptr<SendQueue>& queue, Patience patience);
  void RemoveQueue(const std::shared_ptr<SendQueue>& queue);

  // Keeps the child until it is removed.
  void AddChild(const std::shared_ptr<ChildProcess>& child);
  void RemoveChild(const std::shared_ptr<ChildProcess>& child);
  // For a thread whose event loop has gone.
  void EndChildrenOfThisThread();

  void AddFile(const QByteArray& path);
  // Unlinks it, too.
  void RemoveFile(const QByteArray& path);

  // Takes all steps, and ends the process without running anything of the application's.
  [[noreturn]] void LeaveNow(int status);

 private:
  void TakeAllSteps();
  void SendWhatWaits();
  void EndChildren();
  void RemoveFiles();

  std::mutex mutex_;  // held for the lists alone, never while something is done with them
  std::vector<std::pair<std::shared_ptr<SendQueue>, Patience>> queues_;
  std::set<std::shared_ptr<ChildProcess>> children_;
  std::set<QByteArray> files_;
};

}  // namespace RuntimeManager::host

#endif  // RUNTIME_MANAGER_HOST_PROCESS_EXIT_H
