// Everything that can go wrong, as the table of docs/calls.md has it, in one process, with a real
// task, and with a real task under faults: the same outcome, the same text.
#include <gmock/gmock.h>
#include <tarv/testing/loopback.h>
#include <tarv/testing/matchers.h>
#include <tarv/testing/real_task.h>

#include <QCoreApplication>
#include <QEventLoop>
#include <algorithm>
#include <chrono>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <limits>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "mistakes.h"
#include "scenarios.h"

namespace {

using tarv::test::AllScenarios;
using tarv::test::Compare;
using tarv::test::Scenario;
using tarv::testing::Loopback;
using tarv::testing::LoopbackOptions;
using tarv::testing::ManualLoop;
using tarv::testing::RealTask;
using tarv::testing::RealTaskOptions;
using namespace std::chrono_literals;

// What a task does to its process, done to a Loopback.
class LoopbackDeeds final : public mistakes::Deeds {
 public:
  explicit LoopbackDeeds(Loopback& link) : link_(link) {}

  void Exit(int status, const std::string& last_words) override {
    link_.ExitTask(status, last_words);
  }
  void Crash(const std::string& last_words) override { link_.KillTask(SIGSEGV, last_words); }
  void Block() override { link_.KillTask(SIGSTOP); }
  void Stop() override { link_.KillTask(SIGSTOP); }
  void HangUp() override { link_.HangUp(); }
  void EndManager() override { link_.HangUp(); }

 private:
  Loopback& link_;
};

// The application and the task "misbehaving" in one process.
class InOneProcess final : public tarv::test::World {
 public:
  std::shared_ptr<tarv::Loop> GetLoop() override { return loop_; }

  std::shared_ptr<vorpc::IClient> Start(const std::string& task,
                                        const std::string& mistake) override {
    if (task.find('\0') != std::string::npos) {
      return nullptr;
    }
    auto& run = *runs_.emplace_back(std::make_unique<Run>(OptionsFor(task, mistake), loop_));
    Play(run, mistake);
    return run.link.GetClient();
  }

  // Time passes as far as it has to.
  bool RunUntil(const std::function<bool()>& condition) override {
    loop_->Pump();
    while (!condition() && loop_->CountWaiting() > 0) {
      loop_->Advance(100ms);
    }
    return condition();
  }

  void LimitMessages(std::size_t most) override { options_ = options_.MaxMessage(most); }
  void LimitQueue(std::size_t most) override { options_ = options_.MaxQueue(most); }
  void EndManager() override {
    for (const auto& run : runs_) {
      run->link.EndManager();
    }
  }

 private:
  struct Run {
    Run(const LoopbackOptions& options, const std::shared_ptr<ManualLoop>& loop)
        : link(options, loop), service(tarv::Service::For(link.GetServer(), loop)) {}

    Loopback link;
    std::shared_ptr<tarv::Service> service;
  };

  LoopbackOptions OptionsFor(const std::string& task, const std::string& mistake) const {
    const LoopbackOptions options = options_.TaskName(task);
    return mistake == mistakes::kHasNoBound
               ? options.TaskMaxMessage(std::numeric_limits<std::size_t>::max())
               : options;
  }

  static void Play(Run& run, const std::string& mistake) {
    Loopback& link = run.link;
    if (mistake == mistakes::kExitsAtStart) {
      link.ExitTask(mistakes::kExitStatus, "there is no disk");
    } else if (mistake == mistakes::kDiesAtStart) {
      link.KillTask(SIGKILL);
    } else if (mistake == mistakes::kNeverAccepts || mistake == mistakes::kNeverAnswers) {
      link.PlayTask([](const vorpc::Message&) {});
    } else if (mistake == mistakes::kExitsInHandshake) {
      link.PlayTask([&link](const vorpc::Message&) { link.ExitTask(mistakes::kExitStatus); });
    } else if (mistake == mistakes::kSendsGarbage) {
      link.Next(tarv::testing::Way::kFromTask).Corrupt();
      link.PlayTask([&link](const vorpc::Message& message) { link.SendAsTask(message); });
    } else if (mistake == mistakes::kRefuses) {
      link.PlayTask([&link](const vorpc::Message& message) {
        link.SendAsTask(vorpc::Message::CreateError(message.GetRequest()->id, 42, "not today", {}));
      });
    } else {
      mistakes::Serve(*run.service, *link.GetServer(), std::make_shared<LoopbackDeeds>(link));
      if (mistake != mistakes::kForgetsRun) {
        run.service->Run();
      }
    }
  }

  const std::shared_ptr<ManualLoop> loop_ = std::make_shared<ManualLoop>();
  LoopbackOptions options_;
  std::vector<std::unique_ptr<Run>> runs_;
};

// The real task, by way of the kit.
class InTwoProcesses : public tarv::test::World {
 public:
  explicit InTwoProcesses(std::string faults = {}) : faults_(std::move(faults)) {}
  ~InTwoProcesses() override { std::filesystem::remove_all(folder_); }

  std::shared_ptr<tarv::Loop> GetLoop() override { return loop_; }

  std::shared_ptr<vorpc::IClient> Start(const std::string& task,
                                        const std::string& mistake) override {
    if (task_) {
      return task_->StartAgain();
    }
    RealTaskOptions options = RealTaskOptions().Patience(60s).Variable("MISTAKE", mistake);
    options.faults = faults_;
    options.variables.insert(limits_.begin(), limits_.end());
    task_.emplace(FolderOf(task) / task, options);
    return task_->GetClient();
  }
  bool RunUntil(const std::function<bool()>& condition) override {
    // A kept task starts in the event loop.
    const auto until = std::chrono::steady_clock::now() + 60s;
    while (!task_ && std::chrono::steady_clock::now() < until) {
      QCoreApplication::processEvents(QEventLoop::AllEvents, 10);
    }
    return task_ && task_->WaitUntil(condition);
  }
  void LimitMessages(std::size_t most) override {
    limits_["RUNTIME_MANAGER_MAX_MESSAGE"] = std::to_string(most);
  }
  void LimitQueue(std::size_t most) override {
    limits_["RUNTIME_MANAGER_MAX_QUEUE"] = std::to_string(most);
  }
  void EndManager() override { task_->EndManager(); }

 private:
  // A file that is no program.
  std::filesystem::path FolderOf(const std::string& task) const {
    if (task != "plain") {
      return TASK_FOLDER;
    }
    std::ofstream(folder_ / task) << "no program\n";
    return folder_;
  }
  static std::filesystem::path MakeFolder() {
    std::string path = (std::filesystem::temp_directory_path() / "endings-XXXXXX").string();
    return mkdtemp(path.data()) == nullptr ? "" : path;
  }

  const std::filesystem::path folder_ = MakeFolder();
  int argument_count_ = 1;
  std::string name_ = "testing_endings_tests";
  std::vector<char*> arguments_{name_.data(), nullptr};
  const QCoreApplication application_{argument_count_, arguments_.data()};
  const std::shared_ptr<tarv::Loop> loop_ = tarv::Loop::OfThisThread();
  const std::string faults_;
  std::map<std::string, std::string> limits_;
  std::optional<RealTask> task_;
};

// Faults that change when things happen, and nothing else.
constexpr const char* kFaults = "*: delay 1ms..20ms 50%; *: to delay 5ms; seed 7";

// But for those that are about how programs are started.
std::vector<Scenario> ScenariosWithoutProcesses() {
  std::vector<Scenario> scenarios = AllScenarios();
  scenarios.erase(std::remove_if(scenarios.begin(), scenarios.end(),
                                 [](const Scenario& scenario) { return scenario.needs_processes; }),
                  scenarios.end());
  return scenarios;
}

class EndingsInOneProcess : public ::testing::TestWithParam<Scenario> {};
class Endings : public ::testing::TestWithParam<Scenario> {};

TEST_P(EndingsInOneProcess, AreThoseOfTheTable) {
  InOneProcess world;
  EXPECT_EQ(Compare(GetParam(), GetParam().play(world)), "");
}

TEST_P(Endings, InTwoProcesses) {
  InTwoProcesses world;
  EXPECT_EQ(Compare(GetParam(), GetParam().play(world)), "");
}

TEST_P(Endings, InTwoProcessesUnderFaults) {
  InTwoProcesses world(kFaults);
  EXPECT_EQ(Compare(GetParam(), GetParam().play(world)), "");
}

const auto kNameOfScenario = [](const auto& test) { return std::string(test.param.name); };

INSTANTIATE_TEST_SUITE_P(Each, EndingsInOneProcess,
                         ::testing::ValuesIn(ScenariosWithoutProcesses()), kNameOfScenario);
INSTANTIATE_TEST_SUITE_P(Each, Endings, ::testing::ValuesIn(AllScenarios()), kNameOfScenario);

}  // namespace
