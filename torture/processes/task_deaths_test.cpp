// A task dies, or stops for a while, at each step of its conversation.

#include <gmock/gmock.h>

#include <algorithm>
#include <fstream>
#include <thread>

#include "deaths.h"
#include "end_to_end/application.h"
#include "in_time.h"
#include "support/process_state.h"

namespace tarv::test {
namespace {

using testing::AllOf;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::SizeIs;
using vorpc::Message;

struct Step {
  const char* name;
  // A task that goes on afterwards cannot serve, and says so by its exit status.
  bool cannot_go_on;
};

constexpr Step kSteps[] = {
    {"outside", false},    {"at-start", false},        {"accepted", true},
    {"asked", true},       {"half-written", true},     {"connecting", false},
    {"connected", false},  {"in-handler", false},      {"after-answer", false},
    {"with-queue", false}, {"in-notification", false},
};

void PrintTo(const Step& step, std::ostream* stream) { *stream << step.name; }

class TaskDies : public EndToEndTest, public testing::WithParamInterface<Step> {
 protected:
  static constexpr std::size_t kRequests = 4;

  std::unique_ptr<Connection> StartMortal(const Death& death) {
    const ScopedVariable plan("MORTAL", std::string(GetParam().name) + " " + death.name);
    auto connection = Start("mortal");
    connection->Hear("queued");
    connection->client->Run();
    connection->client->SendNotify("strike", {});
    connection->Send("strike", 0);
    for (int i = 1; i < static_cast<int>(kRequests); ++i) {
      connection->Send("echo", i);
    }
    return connection;
  }

  // What the task cannot do itself.
  static void Help(const Death& death) {
    if (GetParam().name == std::string("outside")) {
      SignalFromOutside(death);
    }
    if (!death.is_stop) {
      return;
    }
    ASSERT_TRUE(WaitUntil([] { return FindStoppedChild() != 0; })) << "nobody stops";
    // Meanwhile nothing ends.
    RunEvents(std::chrono::milliseconds(20));
    kill(FindStoppedChild(), GoesOn(death) ? SIGCONT : SIGKILL);
  }
  static void SignalFromOutside(const Death& death) {
    ASSERT_THAT(Children(), SizeIs(1));
    const std::string name = death.name;
    kill(Children().front(), death.is_stop ? SIGSTOP : name == "segv" ? SIGSEGV : SIGKILL);
  }

  static void ExpectEnds(const Connection& connection, const Death& death) {
    int code = death.code;
    std::string text = death.text;
    if (GoesOn(death) && GetParam().cannot_go_on) {
      code = -32001;
      text = "exited with status 7";
    }
    std::size_t answered = 0;
    for (const Response& response : connection.record->responses) {
      if (!response.IsError()) {
        ++answered;
        continue;
      }
      EXPECT_EQ(response.GetError()->code, code);
      EXPECT_THAT(response.GetError()->message,
                  AllOf(HasSubstr("the task 'mortal'"), HasSubstr(text)));
    }
    EXPECT_LE(answered, code == 0 ? kRequests : MostAnswers()) << "who answered?";
    EXPECT_EQ(connection.client->HasConnectionFailed(), code != 0);
    ASSERT_EQ(connection.record->connected.size(), 1U);
    const bool has_connected = !connection.record->connected.front().has_value();
    EXPECT_EQ(connection.record->disconnected.size(), has_connected && code != 0 ? 1U : 0U);
  }
  // What a task that dies at this step may have answered before.
  static std::size_t MostAnswers() {
    return GetParam().name == std::string("after-answer") ? 1 : 0;
  }

  bool IsNothingLeft(std::size_t descriptors) const {
    return Children().empty() && CountDescriptors() <= descriptors &&
           SocketsBelow(folder_.GetPath()).empty();
  }

  void Play(const Death& death) {
    SCOPED_TRACE(death.name);
    const auto connection = StartMortal(death);
    Help(death);
    if (GetParam().name == std::string("with-queue")) {
      std::this_thread::sleep_for(std::chrono::milliseconds(50));
    }
    ASSERT_TRUE(connection->WaitForResponses(kRequests)) << connection->record->responses.size();
    RunEvents(std::chrono::milliseconds(20));
    EXPECT_THAT(connection->record->responses, SizeIs(kRequests)) << "one ends twice";
    ExpectEnds(*connection, death);
  }
};

TEST_P(TaskDies, AndEachRequestEndsOnceAndNothingIsLeft) {
  for (const Death& death : kDeaths) {
    const bool is_exit = death.status == 0 || death.status == 1;
    if (GetParam().name == std::string("outside") && is_exit && !death.is_stop) {
      continue;  // nobody makes another process exit
    }
    const std::size_t descriptors = CountDescriptors();
    Play(death);
    EXPECT_TRUE(IsOverInTime([&](std::chrono::milliseconds limit) {
      return WaitUntil([&] { return IsNothingLeft(descriptors); }, limit);
    })) << death.name;
    EXPECT_THAT(Children(), IsEmpty()) << death.name;
    EXPECT_LE(CountDescriptors(), descriptors) << death.name;
    EXPECT_THAT(SocketsBelow(folder_.GetPath()), IsEmpty()) << death.name;
  }
}

INSTANTIATE_TEST_SUITE_P(Step, TaskDies, testing::ValuesIn(kSteps), [](const auto& test) {
  std::string name = test.param.name;
  std::replace(name.begin(), name.end(), '-', '_');
  return name;
});

class TaskDiesWhenItIsToldToStop : public EndToEndTest {};

TEST_F(TaskDiesWhenItIsToldToStop, AndNothingIsLeftAndNothingIsCalled) {
  for (const Death& death : kDeaths) {
    SCOPED_TRACE(death.name);
    const ScopedVariable plan("MORTAL", std::string("at-stop ") + death.name);
    auto connection = StartConnected("mortal");
    const auto record = connection->record;
    connection.reset();
    // One that is stopped and never goes on is killed by its starter.
    if (GoesOn(death)) {
      ASSERT_TRUE(WaitUntil([] { return FindStoppedChild() != 0; }));
      kill(FindStoppedChild(), SIGCONT);
    }
    // A task that has been told to stop, and is stopped, is killed after this.
    constexpr std::chrono::milliseconds kGrace(3000);
    const bool is_killed_late = death.is_stop && !GoesOn(death);
    EXPECT_TRUE(IsOverInTime(
        [](std::chrono::milliseconds limit) {
          return WaitUntil([] { return Children().empty(); }, limit);
        },
        is_killed_late ? kGrace : std::chrono::milliseconds(0)));
    EXPECT_THAT(SocketsBelow(folder_.GetPath()), IsEmpty());
    EXPECT_THAT(record->disconnected, IsEmpty());
  }
}

}  // namespace
}  // namespace tarv::test
