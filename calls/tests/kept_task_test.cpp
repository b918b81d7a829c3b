#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <tarv/calls/kept_task.h>
#include <tarv/task_client.h>

#include "link.h"
#include "plain_client.h"
#include "values.h"

namespace {

using counting::kNext;
using counting::kPing;
using tarv::CallReason;
using tarv::KeepPolicy;
using tarv::Restart;
using tarv::TaskStatus;
using tarv::test::Ending;
using tarv::test::Link;
using tarv::test::TestLoop;
using testing::ElementsAre;
using testing::HasSubstr;
using State = tarv::TaskStatus::State;
using namespace std::chrono_literals;

// A task that the test lets die; each start is a link of its own.
class KeptTaskTest : public testing::Test {
 protected:
  void Make(const KeepPolicy& policy = {}) {
    task_ = std::make_unique<tarv::KeptTask>([this] { return Start(); }, "words", policy, loop_);
    task_->OnChange([this](const TaskStatus& status) { states_.push_back(status.state); });
  }

  std::shared_ptr<vorpc::IClient> Start() {
    if (refuse_) {
      return nullptr;
    }
    links_.push_back(std::make_unique<Link>(loop_));
    Link& link = *links_.back();
    link.server->OnRequest("ping", [this](const std::string&, const cw::EncodableValue&,
                                          std::unique_ptr<vorpc::IReply>&& reply) {
      replies_.push_back(std::move(reply));
    });
    const auto number = static_cast<std::int32_t>(links_.size());
    link.server->OnRequest(
        "next", [number](const std::string&, const cw::EncodableValue&,
                         std::unique_ptr<vorpc::IReply>&& reply) { reply->SendResult(number); });
    if (answers_) {
      link.server->Run();
    }
    return std::move(link.client);
  }

  // The number of the start that answers; 0 for an error.
  std::int32_t Ask() {
    const Ending<std::int32_t> ending(task_->Call(kNext));
    loop_->Advance(200ms);
    return ending.Count() > 0 && ending.Get() ? *ending.Get() : 0;
  }

  void Die() {
    const auto client = links_.back()->weak_client.lock();
    ASSERT_TRUE(client);
    client->Disconnect(vorpc::Message::Error(-32002, "killed by SIGSEGV"));
    loop_->Pump();
  }

  std::shared_ptr<TestLoop> loop_ = std::make_shared<TestLoop>();
  std::vector<std::unique_ptr<Link>> links_;
  std::vector<std::unique_ptr<vorpc::IReply>> replies_;
  std::vector<State> states_;
  bool refuse_ = false;
  bool answers_ = true;
  std::unique_ptr<tarv::KeptTask> task_;
};

TEST_F(KeptTaskTest, StartsAtTheFirstCall) {
  Make();
  loop_->Advance(1h);
  EXPECT_TRUE(links_.empty());
  EXPECT_EQ(task_->GetStatus().state, State::kStopped);
  EXPECT_EQ(Ask(), 1);
  EXPECT_EQ(Ask(), 1);
  EXPECT_THAT(states_, ElementsAre(State::kStarting, State::kConnected));
}

TEST_F(KeptTaskTest, StartsOnceForManyCalls) {
  Make();
  std::vector<Ending<std::int32_t>> endings;
  for (int i = 0; i < 3; ++i) {
    endings.emplace_back(task_->Call(kNext));
  }
  loop_->Pump();
  EXPECT_EQ(links_.size(), 1U);
  for (const auto& ending : endings) {
    EXPECT_EQ(*ending.Get(), 1);
  }
}

TEST_F(KeptTaskTest, WaitsNoLongerThanTheLongestPause) {
  KeepPolicy policy;
  policy.restart = Restart::kAtOnce;
  policy.first_pause = 4s;
  policy.longest_pause = 10s;
  Make(policy);
  EXPECT_EQ(Ask(), 1);
  for (const auto pause : {4s, 8s, 10s}) {
    const std::size_t starts = links_.size();
    Die();
    loop_->Advance(pause - 1ms);
    EXPECT_EQ(links_.size(), starts);
    loop_->Advance(1ms);
    EXPECT_EQ(links_.size(), starts + 1);
  }
}

TEST_F(KeptTaskTest, DoesNotRunItsFactoryInsideCall) {
  Make();
  const auto call = task_->Call(kNext);
  EXPECT_TRUE(links_.empty());
}

TEST_F(KeptTaskTest, FailsOpenCallsAndSendsThemNeverAgain) {
  Make();
  const Ending<void> open(task_->Call(kPing));
  loop_->Pump();
  ASSERT_EQ(replies_.size(), 1U);
  Die();
  EXPECT_EQ(open.GetReason(), CallReason::kTaskKilled);
  EXPECT_THAT(open.GetText(), HasSubstr("'ping' of the task 'words' was sent and has no answer: "
                                        "killed by SIGSEGV"));
  EXPECT_EQ(Ask(), 2);
  EXPECT_EQ(replies_.size(), 1U);
  EXPECT_EQ(open.Count(), 1U);
}

TEST_F(KeptTaskTest, LetsADeadTasksClientGo) {
  Make();
  EXPECT_EQ(Ask(), 1);
  Die();
  EXPECT_TRUE(links_.back()->weak_client.expired());
}

TEST_F(KeptTaskTest, StartsAgainAtTheNextCallAfterAPause) {
  Make();
  EXPECT_EQ(Ask(), 1);
  Die();
  loop_->Advance(1h);
  EXPECT_EQ(links_.size(), 1U);
  EXPECT_EQ(Ask(), 2);
  Die();
  const Ending<std::int32_t> waits(task_->Call(kNext));
  loop_->Advance(99ms);
  EXPECT_EQ(task_->GetStatus().state, State::kWaiting);
  EXPECT_EQ(links_.size(), 2U);
  loop_->Advance(1ms);
  EXPECT_EQ(*waits.Get(), 3);
}

TEST_F(KeptTaskTest, StartsAgainAtOnceWhenThePolicySaysSo) {
  KeepPolicy policy;
  policy.restart = Restart::kAtOnce;
  Make(policy);
  EXPECT_EQ(Ask(), 1);
  Die();
  loop_->Advance(100ms);
  EXPECT_EQ(links_.size(), 2U);
  Die();
  loop_->Advance(199ms);
  EXPECT_EQ(links_.size(), 2U) << "the pause doubles";
  loop_->Advance(1ms);
  EXPECT_EQ(links_.size(), 3U);
  EXPECT_THAT(states_,
              ElementsAre(State::kStarting, State::kConnected, State::kEnded, State::kWaiting,
                          State::kStarting, State::kConnected, State::kEnded, State::kWaiting,
                          State::kStarting, State::kConnected));
}

TEST_F(KeptTaskTest, StaysDownWhenThePolicySaysSo) {
  KeepPolicy policy;
  policy.restart = Restart::kNever;
  Make(policy);
  EXPECT_EQ(Ask(), 1);
  Die();
  loop_->Advance(1h);
  const Ending<void> ending(task_->Call(kPing));
  loop_->Pump();
  EXPECT_EQ(ending.GetReason(), CallReason::kTaskKilled);
  EXPECT_EQ(links_.size(), 1U);
  EXPECT_EQ(task_->GetStatus().state, State::kEnded);
  EXPECT_EQ(task_->GetStatus().why->GetReason(), CallReason::kTaskKilled);
}

TEST_F(KeptTaskTest, GivesUpOnACrashLoopUntilTheWindowHasMovedOn) {
  KeepPolicy policy;
  policy.restart = Restart::kAtOnce;
  Make(policy);
  EXPECT_EQ(Ask(), 1);
  for (int i = 0; i < 5; ++i) {
    Die();
    loop_->Advance(10s);
  }
  EXPECT_EQ(links_.size(), 5U);
  const Ending<void> ending(task_->Call(kPing));
  loop_->Pump();
  EXPECT_EQ(ending.GetReason(), CallReason::kCrashLoop);
  EXPECT_EQ(ending.GetText(),
            "'ping' of the task 'words' was not sent: the task 'words' has died 5 times within "
            "180 s and is not started again for now; its last words: killed by SIGSEGV");
  EXPECT_EQ(task_->GetStatus().why->GetReason(), CallReason::kCrashLoop);
  const auto changes = states_.size();
  const Ending<void> again(task_->Call(kPing));
  loop_->Pump();
  EXPECT_EQ(again.GetReason(), CallReason::kCrashLoop);
  EXPECT_EQ(states_.size(), changes) << "told again of what has not changed";
  loop_->Advance(3min);
  EXPECT_EQ(Ask(), 6);
}

TEST_F(KeptTaskTest, CountsATaskThatDoesNotStartAsADeath) {
  Make();
  refuse_ = true;
  for (int i = 0; i < 5; ++i) {
    const Ending<void> ending(task_->Call(kPing));
    loop_->Advance(10s);
    EXPECT_EQ(ending.GetReason(), CallReason::kNotStarted) << i;
  }
  const Ending<void> ending(task_->Call(kPing));
  loop_->Pump();
  EXPECT_EQ(ending.GetReason(), CallReason::kCrashLoop);
}

TEST_F(KeptTaskTest, EndsATaskThatDoesNotAnswerTheHandshake) {
  Make();
  answers_ = false;
  const Ending<void> ending(task_->Call(kPing));
  loop_->Pump();
  loop_->Advance(10s);
  EXPECT_EQ(ending.GetReason(), CallReason::kNeverConnected);
  EXPECT_TRUE(links_.back()->weak_client.expired());
  answers_ = true;
  EXPECT_EQ(Ask(), 2);
}

TEST_F(KeptTaskTest, CarriesNotificationHandlersOver) {
  Make();
  std::vector<std::string> heard;
  task_->OnNotify("early", [&heard](const auto& note) { heard.push_back(note.method); });
  EXPECT_EQ(Ask(), 1);
  task_->OnNotify("late", [&heard](const auto& note) { heard.push_back(note.method); });
  Die();
  EXPECT_EQ(Ask(), 2);
  links_.back()->server->SendNotify("early", {});
  links_.back()->server->SendNotify("late", {});
  loop_->Pump();
  EXPECT_THAT(heard, ElementsAre("early", "late"));
}

TEST_F(KeptTaskTest, HearsWithAHandlerThatComesWhileTheTaskRuns) {
  Make();
  EXPECT_EQ(Ask(), 1);
  int heard = 0;
  task_->OnNotify("late", [&heard](const auto& /*note*/) { ++heard; });
  links_.back()->server->SendNotify("late", {});
  loop_->Pump();
  EXPECT_EQ(heard, 1);
}

TEST_F(KeptTaskTest, HearsNothingOfAnEarlierClient) {
  Make();
  answers_ = false;
  const Ending<void> silent(task_->Call(kPing));
  loop_->Pump();
  const auto earlier = links_.back()->weak_client.lock();  // somebody else holds it
  loop_->Advance(10s);
  answers_ = true;
  EXPECT_EQ(Ask(), 2);
  const Ending<void> open(task_->Call(kPing));
  loop_->Pump();
  links_.front()->server->Run();
  loop_->Pump();
  earlier->Disconnect(vorpc::Message::Error(-32002, "too late"));
  loop_->Pump();
  EXPECT_EQ(open.Count(), 0U);
  EXPECT_EQ(Ask(), 2);
}

// A manager's client, which tells of the manager's end when the test says so.
class ManagedClient final : public tarv::test::PlainClient, public tarv::ITaskClient {
 public:
  using ManagerCallback = std::function<void(tarv::EndedManager)>;

  ManagedClient(std::shared_ptr<vorpc::IClient> client, std::vector<ManagerCallback>& callbacks)
      : PlainClient(std::move(client)), callbacks_(callbacks) {}
  const std::string& GetTaskName() const override { return name_; }
  void OnManagerEnded(ManagerCallback&& callback) override {
    callbacks_.push_back(std::move(callback));
  }

 private:
  const std::string name_ = "words";
  std::vector<ManagerCallback>& callbacks_;
};

TEST_F(KeptTaskTest, HearsNothingOfTheManagerOfAnEarlierClient) {
  std::vector<ManagedClient::ManagerCallback> managers;
  task_ = std::make_unique<tarv::KeptTask>(
      [&] { return std::make_shared<ManagedClient>(Start(), managers); }, "words", KeepPolicy(),
      loop_);
  EXPECT_EQ(Ask(), 1);
  Die();
  EXPECT_EQ(Ask(), 2);
  ASSERT_EQ(managers.size(), 2U);
  const Ending<void> open(task_->Call(kPing));
  loop_->Pump();
  managers[0](tarv::EndedManager::kOwn);
  loop_->Pump();
  EXPECT_EQ(open.Count(), 0U);
  managers[1](tarv::EndedManager::kOwn);
  loop_->Pump();
  EXPECT_EQ(open.GetReason(), CallReason::kReleased);
}

TEST_F(KeptTaskTest, HearsNothingOfATaskThatItLeftWhileThatWasStarting) {
  Make();
  answers_ = false;
  int heard = 0;
  task_->OnNotify("late", [&heard](const auto& /*note*/) { ++heard; });
  const Ending<void> open(task_->Call(kPing));
  loop_->Pump();
  ASSERT_EQ(links_.size(), 1U);
  task_.reset();
  EXPECT_EQ(open.GetReason(), CallReason::kReleased);
  EXPECT_FALSE(links_.back()->weak_client.expired()) << "the task would run on";
  links_.back()->server->SendNotify("late", {});
  links_.back()->server->Run();
  loop_->Pump();
  EXPECT_EQ(heard, 0);
  EXPECT_TRUE(links_.back()->weak_client.expired());
}

TEST_F(KeptTaskTest, LeavesATaskThatNeverAnswersAllTheSame) {
  Make();
  answers_ = false;
  const Ending<void> open(task_->Call(kPing));
  loop_->Pump();
  task_.reset();
  loop_->Advance(10s);
  EXPECT_TRUE(links_.back()->weak_client.expired());
}

TEST_F(KeptTaskTest, ReleasesItsCallsAtItsEnd) {
  Make();
  const Ending<void> open(task_->Call(kPing));
  loop_->Pump();
  task_.reset();
  EXPECT_EQ(open.GetReason(), CallReason::kReleased);
  EXPECT_TRUE(links_.back()->weak_client.expired());
}

TEST_F(KeptTaskTest, MayEndInsideItsCallbacks) {
  for (const State state : {State::kStarting, State::kConnected, State::kEnded}) {
    Make();
    task_->OnChange([this, state](const TaskStatus& status) {
      if (status.state == state) {
        task_.reset();
      }
    });
    const Ending<void> ending(task_->Call(kPing));
    loop_->Pump();
    if (state == State::kEnded) {
      Die();
    }
    EXPECT_EQ(task_, nullptr);
    EXPECT_EQ(ending.Count(), 1U);
  }
  Make();
  task_->Call(kPing).Then([this](const tarv::Outcome<void>&) { task_.reset(); });
  loop_->Pump();
  Die();
  EXPECT_EQ(task_, nullptr);
}

TEST_F(KeptTaskTest, MayBeCalledAgainFromAConsumerOfADeadTask) {
  Make();
  std::int32_t start = 0;
  task_->Call(kPing).Then([&](const tarv::Outcome<void>&) {
    task_->Call(kNext).Then([&](tarv::Outcome<std::int32_t> next) { start = *next; });
  });
  loop_->Pump();
  Die();
  EXPECT_EQ(start, 0);
  loop_->Advance(100ms);
  EXPECT_EQ(start, 2);
}

}  // namespace
