// Every callback that the workstation's host calls by itself throws, or sleeps: those of a task and of
// its connection, and those of a plug-in's channels and of its queue. What comes next is served.
#include <RuntimeManager/Task.h>
#include <RuntimeManager/TaskMessaging.h>
#include <cw/application_wrapper.h>
#include <cw/event_channel.h>
#include <cw/method_channel.h>
#include <gtest/gtest.h>
#include <veltra/host/engine.h>

#include <QJsonObject>
#include <functional>
#include <memory>
#include <string>
#include <tuple>

#include "deed.h"
#include "events.h"
#include "kit/service.h"

namespace tarv::test {
namespace {

using RuntimeManager::Error;
using RuntimeManager::Task;
using RuntimeManager::TaskMessaging;
using Case = std::tuple<const char*, Deed>;

std::string NameOfCase(const testing::TestParamInfo<Case>& info) {
  return NameOf(std::get<const char*>(info.param), std::get<Deed>(info.param));
}

class HostTest : public ServiceTest, public RunsEvents, public testing::WithParamInterface<Case> {
 protected:
  static std::string GetPlace() { return std::get<const char*>(GetParam()); }
  static bool Throws() { return std::get<Deed>(GetParam()) == Deed::kThrows; }

  // What a callback does last.
  void Happen(const char* place) {
    if (place != GetPlace() || done_) {
      return;
    }
    done_ = true;
    Do(std::get<Deed>(GetParam()));
  }

  // Whether exactly the one callback did what it should not.
  bool HasHappened() const { return done_ && thrown_ == (Throws() ? 1 : 0); }

 private:
  bool done_ = false;
};

// ---- Tasks and their connections ----------------------------------------------------------------

class PlatformCallbackThat : public HostTest {
 protected:
  // A task that sends back what it gets, until it is told to leave.
  struct Conversation {
    Task task{"echoing"};
    std::unique_ptr<TaskMessaging> channel;
    int started = 0;
    int echoes = 0;
    int disconnected = 0;
    int finished = 0;
    int stopped = 0;
  };

  void Listen(Conversation& talk) {
    TaskMessaging* const channel = talk.channel.get();
    if (GetPlace() == "DataReceived") {
      QObject::connect(channel, &TaskMessaging::dataReceived, [this, &talk](QByteArray& /*text*/) {
        ++talk.echoes;
        Happen("DataReceived");
      });
    } else {
      QObject::connect(channel, &TaskMessaging::messageReceived, [this, &talk] {
        ++talk.echoes;
        Happen("MessageReceived");
      });
    }
    QObject::connect(channel, &TaskMessaging::disconnected, [this, &talk] {
      ++talk.disconnected;
      Happen("Disconnected");
    });
  }

  void Begin(Conversation& talk) {
    talk.task.withIpcSocket(true);
    QObject::connect(&talk.task, &Task::finished, [this, &talk] {
      ++talk.finished;
      Happen("Finished");
    });
    talk.task.start([this, &talk](const Error& error) {
      EXPECT_FALSE(error.isError()) << error.message().toStdString();
      ++talk.started;
      Happen("Started");
    });
    ASSERT_TRUE(RunUntil([&talk] { return talk.started == 1; }));
    talk.channel = std::make_unique<TaskMessaging>(talk.task.socketPath());
    Listen(talk);
  }

  void Echo(Conversation& talk) {
    talk.channel->sendMessage({{"data", "one"}});
    talk.channel->sendData("two");
    ASSERT_TRUE(RunUntil([&talk] { return talk.echoes == 2; }));
  }

  // By itself, or because it is asked to.
  void End(Conversation& talk, bool is_asked) {
    if (is_asked) {
      talk.task.stop({}, [this, &talk](const Error& error) {
        EXPECT_FALSE(error.isError()) << error.message().toStdString();
        ++talk.stopped;
        Happen("Stopped");
      });
      ASSERT_TRUE(RunUntil([&talk] { return talk.stopped == 1; }));
    } else {
      talk.channel->sendData("leave");
      ASSERT_TRUE(RunUntil([&talk] { return talk.finished == 1 && talk.disconnected == 1; }));
    }
  }

  void Talk(bool is_asked_to_end) {
    Conversation talk;
    ASSERT_NO_FATAL_FAILURE(Begin(talk));
    ASSERT_NO_FATAL_FAILURE(Echo(talk));
    ASSERT_NO_FATAL_FAILURE(End(talk, is_asked_to_end));
    EXPECT_TRUE(WaitUntil([] { return Children().empty(); }));
  }
};

INSTANTIATE_TEST_SUITE_P(Each, PlatformCallbackThat,
                         testing::Combine(testing::Values("Started", "MessageReceived",
                                                          "DataReceived", "Disconnected",
                                                          "Finished", "Stopped"),
                                          testing::Values(Deed::kThrows, Deed::kSleeps)),
                         NameOfCase);

TEST_P(PlatformCallbackThat, LetsTheNextBeServed) {
  ASSERT_NO_FATAL_FAILURE(Talk(GetPlace() == "Stopped"));
  EXPECT_TRUE(HasHappened());
  ASSERT_NO_FATAL_FAILURE(Talk(false));
  ASSERT_NO_FATAL_FAILURE(Talk(true));
  EXPECT_TRUE(HasHappened());
}

// ---- A plug-in's channels and its queue ---------------------------------------------------------

class PluginCallbackThat : public HostTest {
 protected:
  PluginCallbackThat() {
    engine_.GetMessenger().SetMethodCallHandler(
        "methods", [](const auto& /*method*/, const auto& arguments, auto result) {
          result->Success(arguments);
        });
    methods_.SetMethodCallHandler([this](const auto& call, auto result) {
      Happen("MethodCallHandler");
      result->Success(*call.GetArguments());
    });
    events_.SetStreamHandler(std::make_unique<cw::StreamHandlerFunctions<>>(
        [this](const auto* /*arguments*/, auto sink) {
          Happen("OnListen");
          sink->Success(cw::EncodableValue("an event"));
          return nullptr;
        },
        [this](const auto* /*arguments*/) {
          Happen("OnCancel");
          return nullptr;
        }));
  }

  // Each of these asks once, and says whether that was served.
  bool RunTask(unsigned int delay) {
    bool ran = false;
    queue_->EnqueueTask(
        [this, &ran] {
          ran = true;
          Happen("EnqueuedTask");
        },
        delay);
    return RunUntil([&ran] { return ran; });
  }

  bool CallPlugin() {
    cw::EncodableValue answer;
    engine_.GetMessenger().InvokeMethod("methods", "same", 7,
                                        [&](const auto& outcome) { answer = outcome.value; });
    return RunUntil([&answer] { return !answer.IsNull(); }) && answer == cw::EncodableValue(7);
  }

  bool CallDart() {
    bool answered = false;
    methods_.InvokeMethod("same", std::make_unique<cw::EncodableValue>(8),
                          std::make_unique<cw::MethodResultFunctions<>>(
                              [this, &answered](const auto* value) {
                                answered = *value == cw::EncodableValue(8);
                                Happen("Result");
                              },
                              nullptr, nullptr));
    return RunUntil([&answered] { return answered; });
  }

  bool Listen() {
    bool heard = false;
    engine_.GetMessenger().ListenEvents(
        "events", {[&heard](const auto& /*event*/) { heard = true; }, {}, {}});
    const bool served = RunUntil([&heard] { return heard; });
    bool cancelled = false;
    engine_.GetMessenger().CancelEvents(
        "events", {}, [&cancelled](const auto& /*outcome*/) { cancelled = true; });
    return served && RunUntil([&cancelled] { return cancelled; });
  }

  bool AskForEach() { return RunTask(0) && RunTask(1) && CallPlugin() && CallDart() && Listen(); }

  // The call that is served badly itself may go without an answer: it is asked, not waited for.
  void Provoke() {
    engine_.GetMessenger().InvokeMethod("methods", "same", 6);
    engine_.GetMessenger().ListenEvents("events", {});
    engine_.GetMessenger().CancelEvents("events");
    bool later = false;
    engine_.GetMessenger().InvokeMethod("methods", "same", 5,
                                        [&later](const auto& /*outcome*/) { later = true; });
    EXPECT_TRUE(RunUntil([&later] { return later; }));
  }

  veltra::host::Engine engine_;
  FlutterVeltraPluginContext* const context_ = engine_.MakeContext();
  const std::shared_ptr<cw::ApplicationWrapper> queue_ = cw::ApplicationWrapper::Create(context_);
  const std::unique_ptr<cw::BinaryMessenger> messenger_ = cw::BinaryMessenger::Create(context_);
  const cw::MethodChannel<> methods_{messenger_.get(), "methods"};
  const cw::EventChannel<> events_{messenger_.get(), "events"};
};

INSTANTIATE_TEST_SUITE_P(Each, PluginCallbackThat,
                         testing::Combine(testing::Values("EnqueuedTask", "MethodCallHandler",
                                                          "Result", "OnListen", "OnCancel"),
                                          testing::Values(Deed::kThrows, Deed::kSleeps)),
                         NameOfCase);

TEST_P(PluginCallbackThat, LetsTheNextBeServed) {
  Provoke();
  EXPECT_TRUE(AskForEach());
  EXPECT_TRUE(HasHappened());
  EXPECT_TRUE(AskForEach());
  EXPECT_TRUE(HasHappened());
}

}  // namespace
}  // namespace tarv::test
