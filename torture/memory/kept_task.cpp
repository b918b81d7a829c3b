// A KeptTask, with its real task: started, lost, and started again.
#include <quarn/dispatcher.h>
#include <sys/types.h>
#include <tarv/calls/kept_task.h>

#include <csignal>
#include <memory>
#include <string>

#include "call_scenario.h"

namespace tarv::torture {
namespace {

using namespace std::chrono_literals;

constexpr Method<std::string(std::string)> kEchoOfTask{"echo"};
constexpr Method<std::int32_t()> kProcess{"process"};

class KeptTaskScenario final : public Scenario {
 public:
  using Scenario::Scenario;

  void Begin() override {
    manager_ = ManagerWrapper::Create(quarn::IDispatcher::CreateEmpty(), LIBRARY_FOLDER);
  }

  void Act() override {
    Make();
    if (task_ == nullptr) {
      CountError();
      return;
    }
    Ask(kEchoOfTask, kLongText);
    Ask(kProcess);
    Settle();
    Kill();
    Ask(kEchoOfTask, kLongText);
    Settle();
    Try([this] { task_.reset(); });
  }

  std::string Recover() override {
    if (!Settle()) {
      return "unanswered with memory";
    }
    Make();
    has_value_ = false;
    Ask(kEchoOfTask, kLongText);
    if (!Settle()) {
      return "deaf";
    }
    const bool has_value = has_value_;
    task_.reset();
    manager_.reset();
    return has_value ? "" : "with memory, but errs";
  }

 private:
  void Make() {
    Try([this] {
      KeepPolicy policy;
      policy.first_pause = 1ms;
      task_ = std::make_unique<KeptTask>(*manager_, "torture_memory_task", policy);
      task_->OnChange([this](const TaskStatus& status) { state_ = status.state; });
      task_->OnNotify("said", [](const vorpc::Message::Notification& /*said*/) {});
    });
  }

  template <class MethodType, class... Parameters>
  void Ask(const MethodType& method, const Parameters&... parameters) {
    const auto debt = Owe();
    Try(debt, [&] {
      task_->Call(method, parameters...).Then([this, debt](const auto& outcome) {
        debt->Pay();
        OnOutcome(outcome);
      });
    });
  }
  void OnOutcome(const Outcome<std::string>& outcome) {
    has_value_ = outcome.HasValue();
    if (!outcome) {
      CountError();
    }
  }
  void OnOutcome(const Outcome<std::int32_t>& outcome) {
    if (outcome) {
      process_ = *outcome;
    } else {
      CountError();
    }
  }

  // And waits until that is known.
  void Kill() {
    if (process_ == 0) {
      return;
    }
    ::kill(process_, SIGKILL);
    RunUntil([this] { return task_->GetStatus().state != TaskStatus::State::kConnected; });
  }

  std::unique_ptr<ManagerWrapper> manager_;
  std::unique_ptr<KeptTask> task_;
  TaskStatus::State state_ = TaskStatus::State::kStopped;
  pid_t process_ = 0;
  bool has_value_ = false;
};

}  // namespace

std::unique_ptr<Scenario> MakeKeptTask(Loop& loop) {
  return std::make_unique<KeptTaskScenario>(loop);
}

}  // namespace tarv::torture
