// tarv::KeptTask: a task that is started when it is first called, and again after it has died.
//
//   tarv::KeptTask counting(*manager, "counting");
//   counting.Call(kCount, texts).Then(...);
#ifndef TARV_CALLS_KEPT_TASK_H
#define TARV_CALLS_KEPT_TASK_H

#include <tarv/calls/caller.h>
#include <tarv/manager_wrapper.h>

#include <cstddef>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <utility>

namespace tarv {

namespace details {
class KeptTaskCore;
}

// When a task that has died is started again.
enum class Restart { kNever, kAtNextCall, kAtOnce };

struct KeepPolicy {
  Restart restart = Restart::kAtNextCall;
  // Between a death and the next start; doubles with each death within the window.
  Duration first_pause = std::chrono::milliseconds(100);
  Duration longest_pause = std::chrono::seconds(10);
  // So many deaths within the window are a crash loop: the task is not started, and calls end with
  // kCrashLoop, until the window has moved on.
  std::size_t most_deaths = 5;
  Duration window = std::chrono::minutes(3);
  // From a start until the task has answered the handshake. One that does not is ended, as a death.
  Duration connect_timeout = std::chrono::seconds(10);
};

struct TaskStatus {
  enum class State {
    kStopped,    // not started yet
    kStarting,   // started; it has not answered the handshake
    kConnected,  // calls go to it
    kEnded,      // died; the policy, or a crash loop, keeps it from being started just now
    kWaiting,    // died; started again when its pause is over
  };

  State state = State::kStopped;
  // How it ended, while it is ended or waiting; a reason of CallError and the last words.
  std::optional<CallError> why;
};

// Belongs to the thread of its loop: create and destroy it there. Call may be used from any thread.
//
// Calls that are open when the task dies end with its reason and are never sent again. Each start
// gets a new client from the factory, and the task's own notification handlers.
//
// Every operation may throw std::bad_alloc, and has changed nothing then. A start that memory runs
// out for counts as a death, with the reason kOutOfMemory, and the next call tries again.
class KeptTask {
 public:
  // Starts the task and gives its client, not run yet; null when that fails. What it throws is logged
  // and is such a failure.
  using Factory = std::function<std::shared_ptr<vorpc::IClient>()>;
  using NotificationHandler = std::function<void(const vorpc::Message::Notification&)>;

  KeptTask(Factory factory, const std::string& name, const KeepPolicy& policy = {},
           std::shared_ptr<Loop> loop = Loop::OfThisThread());
  // The manager's end ends the calls with kReleased, and each later one, also when it comes before
  // the first; that of another ManagerWrapper is a death of the task while it runs.
  KeptTask(const ManagerWrapper& manager, const std::string& name, const KeepPolicy& policy = {},
           std::shared_ptr<Loop> loop = Loop::OfThisThread());
  // Ends the task, and its open calls with kReleased before it returns.
  ~KeptTask();
  KeptTask(const KeptTask&) = delete;
  KeptTask& operator=(const KeptTask&) = delete;

  // As Caller::Call.
  template <class Result, class Parameter, class Progress>
  tarv::Call<Result, Progress> Call(const Method<Result(Parameter), Progress>& method,
                                    typename details::Given<Parameter>::Type parameter,
                                    const CallOptions& options = {}) {
    return tarv::Call<Result, Progress>(details::StartCall<Result, Parameter>(
        calls_, method.name, !std::is_void_v<Progress>, std::move(parameter), options));
  }
  template <class Result, class Progress>
  tarv::Call<Result, Progress> Call(const Method<Result(), Progress>& method,
                                    const CallOptions& options = {}) {
    return tarv::Call<Result, Progress>(
        details::StartCall<Result>(calls_, method.name, !std::is_void_v<Progress>, options));
  }

  // As vorpc::IClient::OnNotify, for every start of the task from now on.
  void OnNotify(const std::string& method, NotificationHandler handler);

  TaskStatus GetStatus() const;
  // Calls `watcher` after each change, in order, on the loop's thread, instead of an earlier one.
  // Changes that memory runs out for telling are passed over, but for the latest.
  void OnChange(std::function<void(const TaskStatus&)> watcher);

  // Over all starts. Any thread.
  Metrics GetMetrics() const;

 private:
  KeptTask(Factory factory, std::function<bool()> has_manager_ended, const std::string& name,
           const KeepPolicy& policy, std::shared_ptr<Loop> loop);

  std::shared_ptr<details::CallerCore> calls_;
  std::shared_ptr<details::KeptTaskCore> core_;
};

}  // namespace tarv

#endif  // TARV_CALLS_KEPT_TASK_H
