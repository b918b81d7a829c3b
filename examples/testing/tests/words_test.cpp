// The whole plug-in with its task in one process: Dart is played, time is the test's, and there is no
// socket. Each of the first five tests caught a bug of history.h.
#include <gmock/gmock.h>
#include <tarv/testing/loopback.h>
#include <tarv/testing/matchers.h>
#include <tarv/testing/real_task.h>
#include <veltra/host/engine.h>

#include <QCoreApplication>
#include <chrono>
#include <csignal>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "../words_plugin.h"
#include "../words_task.h"

namespace {

using tarv::testing::Answers;
using tarv::testing::Loopback;
using tarv::testing::LoopbackOptions;
using tarv::testing::ManualLoop;
using tarv::testing::PumpWithQt;
using tarv::testing::RealTask;
using tarv::testing::Way;
using testing::HasSubstr;
using testing::IsEmpty;
using veltra::host::MethodOutcome;
using words::kAdd;
using namespace std::chrono_literals;

// One life of the task.
struct Life {
  explicit Life(const std::shared_ptr<ManualLoop>& loop)
      : link(LoopbackOptions().TaskName(words::kTask), loop), task(link.GetServer(), loop) {}

  Loopback link;
  words::WordsTask task;
};

class Words : public testing::Test {
 protected:
  Words() {
    auto* const registrar =
        cw::PluginRegistrarManager::GetInstance().GetRegistrarImpl(engine_.MakeContext());
    const auto start_task = [this] {
      return lives_.emplace_back(std::make_unique<Life>(loop_))->link.GetClient();
    };
    registrar->AddPlugin(std::make_shared<words::WordsPlugin>(registrar, start_task, loop_));
  }

  // What Dart will get.
  std::shared_ptr<std::optional<MethodOutcome>> Add(const std::string& text) {
    const auto heard = std::make_shared<std::optional<MethodOutcome>>();
    engine_.GetMessenger().InvokeMethod(
        words::kChannel, "add", text, [heard](const MethodOutcome& outcome) { *heard = outcome; });
    return heard;
  }
  // Until nothing is left to do, and then as long as is said.
  void Pass(tarv::Duration duration = 0s) {
    PumpWithQt(*loop_);
    loop_->Advance(duration);
    PumpWithQt(*loop_);
  }
  Loopback& Link() { return lives_.back()->link; }

  int argument_count_ = 1;
  std::string program_ = "words_test";
  std::vector<char*> arguments_{program_.data(), nullptr};
  const QCoreApplication application_{argument_count_, arguments_.data()};
  const std::shared_ptr<ManualLoop> loop_ = std::make_shared<ManualLoop>();
  std::vector<std::unique_ptr<Life>> lives_;
  veltra::host::Engine engine_;
};

TEST_F(Words, TellDartWhenTheTaskDies) {
  Add("so far so good");
  Pass();
  Link().Next(Way::kToTask).Delay(1s);
  const auto answer = Add("and on");
  Pass();
  Link().KillTask(SIGSEGV);
  Pass();
  ASSERT_TRUE(*answer) << "Dart waits for ever";
  EXPECT_EQ((*answer)->kind, MethodOutcome::Kind::Error);
  EXPECT_THAT((*answer)->message, HasSubstr("SIGSEGV"));
}

TEST_F(Words, CountAPieceOnceThatComesTwice) {
  Add("one");
  Pass();
  Link().Next(Way::kToTask).Duplicate();
  Add("two three");
  Pass();
  const auto answer = Add("");
  Pass();
  ASSERT_TRUE(*answer);
  EXPECT_EQ((*answer)->value, cw::EncodableValue(std::int64_t{3}));
}

TEST_F(Words, TellDartOfALostMessageWithinFiveSeconds) {
  Add("one");
  Pass();
  Link().Next(Way::kFromTask).Drop();
  const auto answer = Add("two");
  Pass(5s);
  ASSERT_TRUE(*answer) << "Dart still waits; the conversation:\n" << Link().GetTranscript();
  EXPECT_THAT((*answer)->message, HasSubstr("was not answered within 5 s"));
}

TEST_F(Words, AnswerEachOfTwoCallsAtATime) {
  const auto first = Add("one");
  const auto second = Add("two three");
  Pass();
  ASSERT_TRUE(*first);
  ASSERT_TRUE(*second);
  EXPECT_EQ((*first)->value, cw::EncodableValue(std::int64_t{1}));
  EXPECT_EQ((*second)->value, cw::EncodableValue(std::int64_t{3}));
}

TEST_F(Words, AreCountedAgainAfterTheTaskHasDied) {
  Add("one");
  Pass();
  Link().KillTask(SIGKILL);
  Pass();
  const auto answer = Add("two three");
  Pass(1s);
  ASSERT_TRUE(*answer);
  EXPECT_EQ((*answer)->value, cw::EncodableValue(std::int64_t{2})) << (*answer)->message;
  EXPECT_EQ(lives_.size(), 2U);
}

// The same task in its own process.
TEST(WordsTask, CountsInItsOwnProcess) {
  RealTask task(WORDS_TASK);
  const auto call = task.Call(kAdd, {1, "one two"}, tarv::CallOptions().Timeout(30s));
  task.Pump();
  EXPECT_THAT(call, Answers(2));
  EXPECT_THAT(task.Finish(), IsEmpty());
}

}  // namespace
