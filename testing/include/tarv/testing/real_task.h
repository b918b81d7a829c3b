// tarv::testing::RealTask: a task in a process of its own, for tests, and what is left when it is over.
//
//   tarv::testing::RealTask task("/path/of/the/build/bin/tasks/counting");
//   const auto call = task.Call(kCount, {{"a b"}});
//   task.Pump();
//   EXPECT_THAT(call, tarv::testing::Answers(Totals{2, {2}}));
//   EXPECT_THAT(task.Finish(), testing::IsEmpty());
#ifndef TARV_TESTING_REAL_TASK_H
#define TARV_TESTING_REAL_TASK_H

#include <tarv/testing/world.h>

#include <chrono>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace tarv::testing {

namespace details {
class Session;
}

struct RealTaskOptions {
  // How long, in real time, this waits for anything before it gives up.
  Duration patience = std::chrono::seconds(20);
  // From the first call until the task has answered the handshake.
  Duration connect_timeout = std::chrono::seconds(10);
  // RUNTIME_MANAGER_FAULTS, see docs/runtime-host.md.
  std::string faults;
  // More variables of the environment, while this lives: of this process and so of the task.
  std::map<std::string, std::string> variables;

  RealTaskOptions Patience(Duration value) const {
    RealTaskOptions changed = *this;
    changed.patience = value;
    return changed;
  }
  RealTaskOptions ConnectTimeout(Duration value) const {
    RealTaskOptions changed = *this;
    changed.connect_timeout = value;
    return changed;
  }
  RealTaskOptions Faults(std::string value) const {
    RealTaskOptions changed = *this;
    changed.faults = std::move(value);
    return changed;
  }
  RealTaskOptions Variable(const std::string& name, std::string value) const {
    RealTaskOptions changed = *this;
    changed.variables[name] = std::move(value);
    return changed;
  }
};

// How a task's process ended: one of the two.
struct TaskExit {
  std::optional<int> status;
  std::optional<int> signal;
};

// Starts the task through libtarv.so, as an application does, with a runtime folder of its own.
// Belongs to the thread that makes it, which then runs Qt's events inside Pump, Advance and Finish;
// makes a QCoreApplication where there is none. One at a time in a process.
class RealTask final : public World {
 public:
  // The name of the executable is the name of the task. One that cannot be started shows in the first
  // call, as it does for an application. Throws std::logic_error while another one lives, and
  // std::runtime_error where the library or the runtime folder cannot be had.
  explicit RealTask(const std::filesystem::path& program, const RealTaskOptions& options = {});
  // Finishes, and gives what is left to ReportFailure, unless Finish was called.
  ~RealTask() override;

  std::shared_ptr<vorpc::IClient> GetClient() override;
  std::shared_ptr<Loop> GetLoop() override;
  // Starts the task once more, in a process of its own, and returns its client, which takes the
  // place of the earlier one; null as ManagerWrapper::CreateIpcClient. For a KeptTask's factory.
  std::shared_ptr<vorpc::IClient> StartAgain();

  // Runs events until every call that was made through Call has ended, or patience has.
  void Pump() override;
  // As Pump, for this long at most. Time is real here.
  void Advance(Duration duration) override;
  // Runs events until `condition` holds. False when patience ends first.
  bool WaitUntil(const std::function<bool()>& condition);

  // 0 when there is none.
  int GetProcess() const;
  // Any signal. One that ends the task is heard of with the next Pump. Does nothing when there is no
  // process any more.
  void KillTask(int signal) override;
  // Destroys the ManagerWrapper of the application, which ends the task.
  void EndManager();
  // Waits for the end of the process. Nothing while it runs after patience has ended.
  std::optional<TaskExit> WaitForExit();
  // What the task has written to standard error by now. (On the workstation.)
  std::string GetStandardError() const;

  // Ends the task if it runs, and every call, and tells what should not be there afterwards, a line
  // each: a process, a socket, a descriptor of this process. Nothing else but GetStandardError,
  // WaitForExit and GetTranscript may follow.
  std::vector<std::string> Finish();

  // From the workstation's record of messages. Where this process has used the runtime manager
  // before without a record, the task's own lines are read, of which the last may come late.
  std::string GetTranscript() const override;

 private:
  std::unique_ptr<Caller> MakeCaller() override;
  TellTranscript GetTranscriptTeller() const override;
  bool RunUntil(const std::function<bool()>& condition, Duration limit);

  const RealTaskOptions options_;
  const std::string name_;
  std::shared_ptr<details::Session> session_;
};

}  // namespace tarv::testing

#endif  // TARV_TESTING_REAL_TASK_H
