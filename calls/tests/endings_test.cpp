// Everything that can go wrong between an application and a real task, and how each call ends: the
// rows of the table in docs/calls.md.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <tarv/calls/caller.h>
#include <tarv/calls/kept_task.h>
#include <tarv/task_client.h>

#include <algorithm>
#include <fstream>
#include <optional>
#include <regex>
#include <set>

#include "end_to_end/application.h"
#include "mistakes.h"
#include "scenarios.h"

namespace tarv::test {
namespace {

using testing::AllOf;
using testing::EndsWith;
using testing::HasSubstr;
using testing::SizeIs;
using namespace std::chrono_literals;

// Tasks in processes of their own.
class Endings : public EndToEndTest, public World {
 protected:
  std::shared_ptr<Loop> GetLoop() override { return loop_; }
  std::shared_ptr<vorpc::IClient> Start(const std::string& task,
                                        const std::string& mistake) override {
    const ScopedVariable variable("MISTAKE", mistake);
    return manager_wrapper_->CreateIpcClient(task);
  }
  bool RunUntil(const std::function<bool()>& condition) override { return WaitUntil(condition); }
  void LimitMessages(std::size_t most) override {
    most_message_.emplace("RUNTIME_MANAGER_MAX_MESSAGE", std::to_string(most));
  }
  void LimitQueue(std::size_t most) override {
    most_queue_.emplace("RUNTIME_MANAGER_MAX_QUEUE", std::to_string(most));
  }
  void EndManager() override { manager_wrapper_.reset(); }

  template <class Result, class Step>
  static Outcome<Result> End(const Call<Result, Step>& call) {
    const auto ended = std::make_shared<std::optional<Outcome<Result>>>();
    call.Then([ended](Outcome<Result> outcome) { ended->emplace(std::move(outcome)); });
    if (!WaitUntil([&ended] { return ended->has_value(); })) {
      throw std::runtime_error("the call never ends");
    }
    return std::move(**ended);
  }

 private:
  const std::shared_ptr<Loop> loop_ = Loop::OfThisThread();
  std::optional<ScopedVariable> most_message_;
  std::optional<ScopedVariable> most_queue_;
};

class EndingsOfTheTable : public Endings, public testing::WithParamInterface<Scenario> {};

TEST_P(EndingsOfTheTable, Are) {
  std::ofstream(Sign("plain")) << "no program\n";
  const ScopedVariable path("RUNTIME_MANAGER_TASK_PATH",
                            folder_.GetPath().string() + ":" + TaskFolder());
  EXPECT_EQ(Compare(GetParam(), GetParam().play(*this)), "");
}

INSTANTIATE_TEST_SUITE_P(Each, EndingsOfTheTable, testing::ValuesIn(AllScenarios()),
                         [](const auto& test) { return std::string(test.param.name); });

// ---- The table itself

struct Row {
  std::string what;
  std::string how;
};

std::vector<Row> RowsOfTheGuide() {
  std::ifstream guide(DOCS_FOLDER "/calls.md");
  const std::regex row(R"(\| (.*) \| (.*) \| .* \|)");
  std::vector<Row> rows;
  std::string line;
  while (std::getline(guide, line) && line.rfind("## Threads", 0) != 0) {
    std::smatch cells;
    if (std::regex_match(line, cells, row) && cells[2].str().find("`k") == 0) {
      rows.push_back({cells[1], cells[2]});
    }
  }
  return rows;
}

TEST(TableOfEndings, HasAScenarioForEachReasonOfEachRow) {
  const std::regex reason_name("`(k[A-Z][A-Za-z]+)`");
  for (const Row& row : RowsOfTheGuide()) {
    std::set<std::string> promised;
    for (std::sregex_iterator name(row.how.begin(), row.how.end(), reason_name), end; name != end;
         ++name) {
      promised.insert((*name)[1]);
    }
    std::set<std::string> played;
    for (const Scenario& scenario : AllScenarios()) {
      if (scenario.row == row.what) {
        played.emplace(NameOf(scenario.reason));
      }
    }
    EXPECT_EQ(played, promised) << row.what;
  }
}

TEST(TableOfEndings, HasARowForEachScenario) {
  const std::vector<Row> rows = RowsOfTheGuide();
  for (const Scenario& scenario : AllScenarios()) {
    EXPECT_TRUE(std::any_of(rows.begin(), rows.end(),
                            [&scenario](const Row& row) { return row.what == scenario.row; }))
        << scenario.name << ": " << scenario.row;
  }
}

// ---- What a row does not show

TEST_F(Endings, AreNotTheEndOfAGoodCall) {
  Caller caller(Start("misbehaving", ""));
  const auto outcome = End(caller.Call(mistakes::kEcho, "good"));
  ASSERT_TRUE(outcome);
  EXPECT_EQ(*outcome, "good");
}

TEST_F(Endings, NameTheTaskOfTheirClient) {
  Caller caller(Start("misbehaving", ""));
  EXPECT_THAT(End(caller.Call(mistakes::kDrop)).GetError().what(),
              HasSubstr("'drop' of the task 'misbehaving' answered"));
  Caller renamed(Start("misbehaving", ""), CallerOptions().TaskName("another"));
  EXPECT_THAT(End(renamed.Call(mistakes::kDrop)).GetError().what(),
              HasSubstr("'drop' of the task 'another' answered"));
}

TEST_F(Endings, ComeAfterTheEndOfAManagerAndNotInsideIt) {
  Caller caller(Start("misbehaving", ""));
  ASSERT_TRUE(End(caller.Call(mistakes::kPing)));
  bool ended = false;
  caller.Call(mistakes::kKeep).Then([&ended](const Outcome<void>&) { ended = true; });
  EndManager();
  EXPECT_FALSE(ended);
  EXPECT_TRUE(WaitUntil([&ended] { return ended; }));
  EXPECT_THAT(End(caller.Call(mistakes::kPing)).GetError().what(),
              AllOf(HasSubstr("'ping' of the task 'misbehaving' was not sent: the ManagerWrapper "
                              "that made its client was destroyed"),
                    EndsWith("destroy it after Caller and client")));
}

TEST_F(Endings, TellOfTheManagerToACallThatTheCallersEndFinds) {
  auto caller = std::make_unique<Caller>(Start("misbehaving", ""));
  std::string text;
  caller->Call(mistakes::kKeep).Then([&text](const Outcome<void>& outcome) {
    text = outcome.GetError().what();
  });
  EndManager();
  caller.reset();
  EXPECT_THAT(text, HasSubstr("the ManagerWrapper that made its client was destroyed"));
}

TEST_F(Endings, OfAnotherManagerAreTold) {
  auto other = ManagerWrapper::Create(quarn::IDispatcher::CreateEmpty(), LibraryFolder());
  Caller caller(Start("misbehaving", ""));
  ASSERT_TRUE(End(caller.Call(mistakes::kPing)));
  const auto call = caller.Call(mistakes::kKeep);
  other.reset();
  const auto outcome = End(call);
  EXPECT_EQ(outcome.GetError().GetReason(), CallReason::kReleased);
  EXPECT_THAT(outcome.GetError().what(),
              HasSubstr("another ManagerWrapper of this process was destroyed, which ends the "
                        "tasks of all"));
}

TEST_F(Endings, AreNotTheEndOfAKeptTask) {
  KeptTask task(*manager_wrapper_, "misbehaving");
  const auto outcome = End(task.Call(mistakes::kDo, "crash"));
  EXPECT_EQ(outcome.GetError().GetReason(), CallReason::kTaskKilled);
  EXPECT_THAT(task.GetStatus().why->what(), HasSubstr("a wild pointer; under way: 'do'"));
  EXPECT_TRUE(End(task.Call(mistakes::kPing)));
}

TEST_F(Endings, OfACallerWhileItsTaskIsStartingAreTheEndOfThatTask) {
  { const Caller caller(Start("misbehaving", "")); }
  EXPECT_THAT(Children(), SizeIs(1));
  EXPECT_TRUE(WaitUntil([] { return Children().empty(); }));
}

TEST_F(Endings, OfAKeptTaskWhileItIsStartingAreTheEndOfTheProcess) {
  std::optional<KeptTask> task(std::in_place, *manager_wrapper_, "misbehaving");
  task->OnChange([&task](const TaskStatus& /*status*/) { task.reset(); });
  const auto call = task->Call(mistakes::kPing);
  EXPECT_EQ(End(call).GetError().GetReason(), CallReason::kReleased);
  EXPECT_TRUE(WaitUntil([] { return Children().empty(); }));
}

TEST_F(Endings, OfAnotherManagerAreDeathsOfAKeptTask) {
  auto other = ManagerWrapper::Create(quarn::IDispatcher::CreateEmpty(), LibraryFolder());
  KeptTask task(*manager_wrapper_, "misbehaving");
  ASSERT_TRUE(End(task.Call(mistakes::kPing)));
  other.reset();
  EXPECT_TRUE(WaitUntil([&task] { return task.GetStatus().state == TaskStatus::State::kEnded; }));
  EXPECT_EQ(task.GetStatus().why->GetReason(), CallReason::kReleased);
  EXPECT_TRUE(End(task.Call(mistakes::kPing)));
}

TEST_F(Endings, OfItsManagerBeforeTheFirstCallAreTheEndOfAKeptTask) {
  KeptTask task(*manager_wrapper_, "misbehaving");
  EndManager();
  for (int i = 0; i < 2; ++i) {
    const auto outcome = End(task.Call(mistakes::kPing));
    EXPECT_EQ(outcome.GetError().GetReason(), CallReason::kReleased);
    EXPECT_THAT(outcome.GetError().what(),
                HasSubstr("the ManagerWrapper that made its client was destroyed"));
  }
  EXPECT_EQ(task.GetStatus().state, TaskStatus::State::kEnded);
}

TEST_F(Endings, OfItsManagerBetweenTwoStartsAreTheEndOfAKeptTask) {
  KeptTask task(*manager_wrapper_, "misbehaving");
  EXPECT_EQ(End(task.Call(mistakes::kDo, "crash")).GetError().GetReason(), CallReason::kTaskKilled);
  const auto waiting = task.Call(mistakes::kPing);
  EndManager();
  EXPECT_EQ(End(waiting).GetError().GetReason(), CallReason::kReleased);
}

TEST_F(Endings, OfItsManagerAreTheEndOfAKeptTask) {
  KeptTask task(*manager_wrapper_, "misbehaving");
  ASSERT_TRUE(End(task.Call(mistakes::kPing)));
  const auto open = task.Call(mistakes::kKeep);
  EndManager();
  EXPECT_EQ(End(open).GetError().GetReason(), CallReason::kReleased);
  for (int i = 0; i < 2; ++i) {
    const auto outcome = End(task.Call(mistakes::kPing));
    EXPECT_EQ(outcome.GetError().GetReason(), CallReason::kReleased);
    EXPECT_THAT(outcome.GetError().what(), HasSubstr("'ping' of the task 'misbehaving' was not "
                                                     "sent: the ManagerWrapper that made"));
  }
}

}  // namespace
}  // namespace tarv::test
