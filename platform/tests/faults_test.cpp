// RUNTIME_MANAGER_FAULTS: what strikes the messages of a task, and what is said about wrong rules.
#include <RuntimeManager/Task.h>
#include <RuntimeManager/TaskMessaging.h>
#include <gmock/gmock.h>

#include <QtCore/QElapsedTimer>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "kit.h"

namespace kit {
namespace {

using testing::Contains;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;

class Faults : public PlatformTest {
 protected:
  void SetUp() override {
    PlatformTest::SetUp();
    AddHelperTask("echo");
  }
  void Begin(const QByteArray& rules, const QStringList& words = {}) {
    {
      const ScopedVariable variable("RUNTIME_MANAGER_FAULTS", rules);
      task_ = std::make_unique<Task>("echo");
      task_->withIpcSocket(true);
      task_->withArguments(words);
      QObject::connect(task_.get(), &Task::finished, finished_.Recorder());
      ExpectStarts(*task_);
    }
    messaging_ = std::make_unique<TaskMessaging>(task_->socketPath());
    inbox_ = std::make_unique<Inbox>(messaging_.get());
  }
  void TearDown() override {
    inbox_.reset();
    messaging_.reset();
    if (task_ != nullptr) {
      task_->stop(Task::StopFlag::Kill, {});
    }
    task_.reset();
    PlatformTest::TearDown();
  }
  void Send(int count) {
    for (int i = 0; i < count; ++i) {
      messaging_->sendMessage({{"n", i}});
    }
  }
  std::vector<int> Numbers() const {
    std::vector<int> numbers;
    for (const QJsonObject& message : inbox_->messages) {
      numbers.push_back(message["n"].toInt(-1));
    }
    return numbers;
  }
  // Sends this many, of which some do not come back; what does, by number.
  std::vector<int> Echoes(const QByteArray& rules, int count) {
    Begin(rules);
    Send(count);
    messaging_->sendMessage({{"last", true}});
    EXPECT_TRUE(RunUntil(
        [this] { return !inbox_->messages.empty() && inbox_->messages.back().contains("last"); }));
    inbox_->messages.pop_back();
    return Numbers();
  }
  std::string WhyNotStarted(const QByteArray& rules) {
    const ScopedVariable variable("RUNTIME_MANAGER_FAULTS", rules);
    Task task("echo");
    Outcomes started;
    task.start(started.Recorder());
    const Error error = started.Wait();
    EXPECT_TRUE(error.isError());
    return error.message().toStdString();
  }

  Outcomes finished_;
  std::unique_ptr<Task> task_;
  std::unique_ptr<TaskMessaging> messaging_;
  std::unique_ptr<Inbox> inbox_;
};

TEST_F(Faults, LeaveTasksAloneThatNoRuleIsAbout) {
  EXPECT_THAT(Echoes("other: drop; seed 3", 3), ElementsAre(0, 1, 2));
}

TEST_F(Faults, DropMessages) {
  Begin("echo: to drop");
  Send(3);
  RunFor(300);
  EXPECT_THAT(Numbers(), IsEmpty());
  EXPECT_FALSE(inbox_->disconnects.Arrived());
}

TEST_F(Faults, DuplicateMessagesOneWay) {
  Begin("echo: from duplicate");
  Send(2);
  ASSERT_TRUE(inbox_->WaitFor(4));
  EXPECT_THAT(Numbers(), ElementsAre(0, 0, 1, 1));
}

TEST_F(Faults, DuplicateMessagesBothWays) {
  Begin("*: duplicate");
  Send(1);
  ASSERT_TRUE(inbox_->WaitFor(4));
  EXPECT_THAT(Numbers(), ElementsAre(0, 0, 0, 0));
}

TEST_F(Faults, TruncateMessages) {
  const WarningCatcher warnings;
  Begin("echo: from truncate; seed 5");
  messaging_->sendMessage({{"number", 123456}, {"text", 0}});
  ASSERT_TRUE(RunUntil(
      [&] { return warnings.Count("it is not a JSON object") == 1 || !inbox_->messages.empty(); }));
  EXPECT_THAT(inbox_->messages, IsEmpty());
  EXPECT_FALSE(inbox_->disconnects.Arrived());
}

// One byte of it is another one: it may be a message still, but not this one.
TEST_F(Faults, CorruptMessages) {
  const WarningCatcher warnings;
  const QJsonObject sent{{"number", 123456}, {"text", 0}};
  Begin("echo: from corrupt; seed 5");
  messaging_->sendMessage(sent);
  ASSERT_TRUE(RunUntil(
      [&] { return warnings.Count("it is not a JSON object") == 1 || !inbox_->messages.empty(); }));
  EXPECT_THAT(inbox_->messages, Not(Contains(sent)));
  EXPECT_FALSE(inbox_->disconnects.Arrived());
}

TEST_F(Faults, DelayMessagesAndKeepTheirOrder) {
  QElapsedTimer since;
  since.start();
  Begin("*: to delay 100ms..200ms; seed 1");
  since.restart();
  Send(5);
  ASSERT_TRUE(inbox_->WaitFor(1));
  EXPECT_GE(since.elapsed(), 100);
  ASSERT_TRUE(inbox_->WaitFor(5));
  EXPECT_THAT(Numbers(), ElementsAre(0, 1, 2, 3, 4));
}

TEST_F(Faults, KillTheTaskAfterSoManyMessages) {
  Begin("echo: from kill after 3 messages");
  Send(2);
  ASSERT_TRUE(inbox_->WaitFor(2));
  RunFor(100);
  EXPECT_FALSE(finished_.Arrived());
  Send(1);
  EXPECT_THAT(finished_.Wait().message().toStdString(), HasSubstr("signal 9 (SIGKILL)"));
  EXPECT_THAT(Numbers(), ElementsAre(0, 1, 0));
  EXPECT_EQ(inbox_->disconnects.Wait().code(), Error::kTaskKilled);
}

TEST_F(Faults, StopTheTaskAfterSoManyMessages) {
  Begin("echo: stop after 2 messages");
  Send(1);
  ASSERT_TRUE(inbox_->WaitFor(1));
  Send(1);
  RunFor(300);
  EXPECT_THAT(Numbers(), ElementsAre(0));
  EXPECT_FALSE(finished_.Arrived()) << "a stopped task has not ended";
}

TEST_F(Faults, RefuseToStart) {
  EXPECT_EQ(
      WhyNotStarted("*: refuse to start"),
      "the task 'echo' cannot be started: RUNTIME_MANAGER_FAULTS says \"*: refuse to start\"");
}

TEST_F(Faults, SlowTheReader) {
  Begin("echo: to slow 100000 bytes per second");
  QElapsedTimer since;
  since.start();
  messaging_->sendMessage(Data(QString(60000, 'x')));
  ASSERT_TRUE(inbox_->WaitFor(1));
  EXPECT_GE(since.elapsed(), 400);
}

TEST_F(Faults, MakeASlowReaderFillTheSendersQueue) {
  const ScopedVariable queue("RUNTIME_MANAGER_MAX_QUEUE", "3000000");
  Begin("echo: to slow 1000 bytes per second");
  for (int i = 0; i < 5; ++i) {
    messaging_->sendMessage(Data(QString(1 << 20, 'x')));
  }
  EXPECT_EQ(inbox_->disconnects.Wait().code(), Error::kQueueFull);
}

TEST_F(Faults, LetLargeMessagesPassUnharmed) {
  Begin("other: drop; echo: stop after 100 messages");
  const QJsonObject large = Data(QString(8 << 20, 'y'));
  messaging_->sendMessage(large);
  ASSERT_TRUE(inbox_->WaitFor(1));
  EXPECT_TRUE(inbox_->messages[0] == large);
}

TEST_F(Faults, ComeBackWithTheirSeed) {
  const auto faults_of = [this](const char* name, const QByteArray& rules) {
    const ScopedVariable faults("RUNTIME_MANAGER_FAULTS", rules);
    const ScopedVariable trace("RUNTIME_MANAGER_TRACE", PathOf(name).toUtf8());
    EXPECT_EQ(Process(HELPER, {"talk", "echo"}).Wait(), 0);
    std::string faults_in_record;
    for (const QByteArray& line : ReadFile(PathOf(name)).split('\n')) {
      const int fault = line.indexOf("\"direction\"");
      faults_in_record += line.contains("\"fault\"") ? line.mid(fault).toStdString() : "";
    }
    return faults_in_record;
  };
  const std::string seven = faults_of("1", "*: delay 1ms..999ms; seed 7");
  EXPECT_THAT(seven, HasSubstr(R"("direction":"send","fault":"delay )"));
  EXPECT_THAT(seven, HasSubstr(R"("direction":"receive","fault":"delay )"));
  EXPECT_EQ(seven, faults_of("2", "*: delay 1ms..999ms; seed 7"));
  EXPECT_NE(seven, faults_of("3", "*: delay 1ms..999ms; seed 8"));
}

TEST_F(Faults, StrikeAsOftenAsTheyShall) {
  const std::size_t echoes = Echoes("echo: to duplicate 20%; seed 4", 500).size();
  EXPECT_GT(echoes, 500U + 50U);
  EXPECT_LT(echoes, 500U + 150U);
}

TEST_F(Faults, StandInTheRecord) {
  const ScopedVariable faults("RUNTIME_MANAGER_FAULTS",
                              "echo: to duplicate; echo: from delay 2ms; seed 1");
  const ScopedVariable trace("RUNTIME_MANAGER_TRACE", PathOf("record").toUtf8());
  EXPECT_EQ(Process(HELPER, {"talk", "echo"}).Wait(), 0);
  const std::string record = ReadFile(PathOf("record")).toStdString();
  EXPECT_THAT(record,
              HasSubstr(R"("task":"echo","direction":"send","fault":"echo: to duplicate"})"));
  EXPECT_THAT(record, HasSubstr(R"("task":"echo","direction":"receive","fault":"delay 2ms"})"));
}

TEST_F(Faults, SayWhichSeedMakesThemAgain) {
  const WarningCatcher warnings;
  Begin("echo: delay 1ms");
  EXPECT_EQ(warnings.Count("RUNTIME_MANAGER_FAULTS strikes the task 'echo'; \"seed "), 1);
}

TEST_F(Faults, DeliverWhatATaskHadSentBeforeItsEnd) {
  Begin("*: from delay 500s", {"answer-and-exit"});
  std::vector<QByteArray> texts;
  QObject::connect(messaging_.get(), &TaskMessaging::dataReceived,
                   [&texts](const QByteArray& text) { texts.push_back(text); });
  messaging_->sendData("before");
  messaging_->sendData("exit");
  EXPECT_EQ(inbox_->disconnects.Wait().code(), Error::kTaskExited);
  EXPECT_THAT(texts, ElementsAre("before"));
}

TEST_F(Faults, LeaveTheEndOfATaskAsItIs) {
  Begin("*: delay 1ms");
  task_->stop({}, {});
  EXPECT_TRUE(inbox_->disconnects.Wait().isError());
}

TEST_F(Faults, AreWrittenOnSeveralLinesToo) {
  EXPECT_THAT(Echoes("\n other: drop ;\n\techo: to delay 1s..2s 1% \n\n seed 12;", 2),
              ElementsAre(0, 1));
}

struct Mistake {
  const char* rules;
  const char* error;
};

TEST_F(Faults, ThatAreWrittenWrongAreShownWithThePlace) {
  const std::vector<Mistake> mistakes = {
      {"wordcount: kill afer 3 messages; seed 7",
       "expected \"after\" here:\n  wordcount: kill afer 3 messages; seed 7\n"
       "                  ^"},
      {"*: drop;\nx: delay 50", "expected \"ms\" or \"s\" here:\n  x: delay 50\n             ^"},
      {"echo drop", "expected \":\" here:\n  echo drop\n       ^"},
      {"*: explode",
       "expected to, from, delay, drop, duplicate, truncate, corrupt, kill, stop, refuse or slow "
       "here:\n  *: explode\n     ^"},
      {"*: to",
       "expected delay, drop, duplicate, truncate, corrupt, kill, stop, refuse or slow "
       "here:\n  *: to\n       ^"},
      {"*: drop 101%",
       "expected a number from 1 to 100, at least 1 and at most 100 here:\n"
       "  *: drop 101%\n          ^"},
      {"*: drop 10", "expected \"%\" here:\n  *: drop 10\n            ^"},
      {"*: drop now", "expected \";\" or the end here:\n  *: drop now\n          ^"},
      {"*: delay 5s..1s",
       "expected a time that is not before the other here:\n"
       "  *: delay 5s..1s\n               ^"},
      {"*: kill after many messages",
       "expected a number of messages, at least 1 and at most "
       "1099511627776 here:\n  *: kill after many messages\n"
       "                ^"},
      {"seed x",
       "expected a number, at least 1 and at most 1099511627776 here:\n  seed x\n"
       "       ^"},
      {"seed 1 2", "expected \";\" or the end here:\n  seed 1 2\n         ^"},
      {"../x: drop", "expected the name of a task, \"*\" or \"seed\" here:\n  ../x: drop\n  ^"},
      {"*: refuse start", "expected \"to\" here:\n  *: refuse start\n            ^"},
      {"*: slow 5 bytes", "expected \"per\" here:\n  *: slow 5 bytes\n                 ^"},
  };
  for (const Mistake& mistake : mistakes) {
    EXPECT_EQ(WhyNotStarted(mistake.rules),
              std::string("the task 'echo' cannot be started: RUNTIME_MANAGER_FAULTS is wrong, ") +
                  mistake.error);
  }
}

}  // namespace
}  // namespace kit
