// One child process, from its start until it is reaped.
#ifndef RUNTIME_MANAGER_HOST_CHILD_PROCESS_H
#define RUNTIME_MANAGER_HOST_CHILD_PROCESS_H

#include <sys/types.h>

#include <QtCore/QElapsedTimer>
#include <QtCore/QObject>
#include <QtCore/QString>
#include <QtCore/QTimer>
#include <atomic>
#include <functional>
#include <memory>
#include <thread>
#include <vector>

#include "child_handle.h"
#include "quiet_notifier.h"
#include "spawn.h"
#include "stderr_relay.h"
#include "unique_fd.h"

namespace RuntimeManager::host {

// How a child came to its end.
struct ChildEnd {
  int exec_error = 0;      // not 0: the program never ran, and this error number says why
  bool succeeded = false;  // it exited with status 0
  bool killed = false;     // by a signal
  QString
      how;  // "exited with status 3 after 12 ms", "was killed by signal 9 (SIGKILL) after 1.2 s"
  QString last_lines;  // the end of what it wrote to its standard error, escaped
};

// Belongs to the thread that made it. Its owner may drop it from inside a callback, after Abandon()
// or LetGo(); then it calls nothing any more.
class ChildProcess : public std::enable_shared_from_this<ChildProcess> {
 public:
  struct Callbacks {
    std::function<void()> on_running;               // the program runs
    std::function<void(const ChildEnd&)> on_ended;  // it is gone and reaped; the last call
  };

  // Both callbacks come from the event loop. Returns an error number, 0 for none.
  static int Start(const SpawnRequest& request, Callbacks callbacks,
                   std::shared_ptr<ChildProcess>* child);
  ~ChildProcess() = default;
  ChildProcess(const ChildProcess&) = delete;
  ChildProcess& operator=(const ChildProcess&) = delete;

  // Ends them: all are asked at once, one grace period holds for all, and those that are left then
  // are killed. Waits here. Of children of other threads only the processes are dealt with; those
  // that are to outlive this process are left alone.
  static void EndAll(const std::vector<std::shared_ptr<ChildProcess>>& children);

  pid_t GetPid() const { return handle_.GetPid(); }
  // Whether the event loop is gone that it was watched by. Then the process is gone, too, and no
  // callback comes any more.
  bool IsEventLoopGone() const { return loop_is_gone_; }
  // Whether the calling thread is the one that this object belongs to.
  bool IsInItsThread() const { return thread_ == std::this_thread::get_id(); }
  // An error number when it cannot be signalled; 0 also when it has ended already.
  int Signal(int signal) { return handle_.Signal(signal); }
  // Asks the process to end, and makes it end if it does not within the grace period, or at once
  // with `kill`. An error number when it cannot be signalled; 0 also when it has ended already.
  int Terminate(bool kill);
  // Ends the process in the background. Without an event loop that could see to it, it waits here,
  // for the grace period at most.
  void Abandon();
  // Lets the process run on; it is only reaped in the background.
  void LetGo();

 private:
  class Ending;

  ChildProcess(Spawned spawned, const SpawnRequest& request, Callbacks callbacks);
  void Watch();
  void WatchEventLoop();
  void OnEventLoopGone();
  void OnExecStatus();
  void OnMaybeEnded();
  void StopWatching();
  void FinishStderr();
  QString HowItEnded() const;
  void RecordStart(const SpawnRequest& request, long long time) const;
  void RecordEnd();

  ChildHandle handle_;
  const bool ends_with_starter_;
  const QString task_;  // empty for a program that is no task
  const std::thread::id thread_ = std::this_thread::get_id();
  Callbacks callbacks_;
  UniqueFd exec_status_;
  StderrRelay stderr_;
  QTimer grace_;
  QTimer poll_;
  QElapsedTimer since_start_;
  std::unique_ptr<QuietNotifier> ended_notifier_;
  std::unique_ptr<QuietNotifier> exec_notifier_;
  ChildEnd end_;
  int vain_reads_ = 0;
  bool running_told_ = false;
  bool end_told_ = false;
  bool loop_is_gone_ = false;
  std::atomic<bool> end_recorded_{false};
};

}  // namespace RuntimeManager::host

#endif  // RUNTIME_MANAGER_HOST_CHILD_PROCESS_H
