#include <cw/event_channel.h>
#include <cw/method_channel.h>
#include <gmock/gmock.h>

#include <stdexcept>

#include "engine_fixture.h"
#include "support/capture.h"

namespace {

using cw::BinaryMessenger;
using cw::EncodableValue;
using tarv::test::StderrOf;
using testing::ElementsAre;
using veltra::host::Bytes;
using veltra::host::MethodOutcome;

class ChannelTest : public veltra::test::EngineTest {
 protected:
  ChannelTest() : messenger_(BinaryMessenger::Create(engine_->MakeContext())) {}

  veltra::host::Messenger& Dart() { return engine_->GetMessenger(); }

  MethodOutcome Call(const std::string& method, const EncodableValue& arguments = {}) {
    std::optional<MethodOutcome> result;
    Dart().InvokeMethod("channel", method, arguments,
                        [&result](const MethodOutcome& outcome) { result = outcome; });
    EXPECT_TRUE(RunUntil([&result] { return result.has_value(); }));
    return result.value_or(MethodOutcome());
  }

  Bytes SendRaw(const Bytes& message) {
    std::optional<Bytes> result;
    Dart().Send("channel", message, [&result](const Bytes& reply) { result = reply; });
    EXPECT_TRUE(RunUntil([&result] { return result.has_value(); }));
    return result.value_or(Bytes{255});
  }

  std::unique_ptr<BinaryMessenger> messenger_;
};

class MethodChannelTest : public ChannelTest {
 protected:
  void Handle(cw::MethodCallHandler<> handler) {
    // The channel need not live on.
    cw::MethodChannel<>(messenger_.get(), "channel").SetMethodCallHandler(std::move(handler));
  }

  // Calls Dart and returns how the call came out, as a word.
  std::string InvokeDart() {
    std::string word;
    cw::MethodChannel<>(messenger_.get(), "channel")
        .InvokeMethod("ask", std::make_unique<EncodableValue>("what"),
                      std::make_unique<cw::MethodResultFunctions<>>(
                          [&word](const EncodableValue* value) {
                            word = value == nullptr ? "nothing" : "value " + *value->AsString();
                          },
                          [&word](const std::string& code, const std::string&,
                                  const EncodableValue*) { word = "error " + code; },
                          [&word] { word = "not implemented"; }));
    EXPECT_TRUE(RunUntil([&word] { return !word.empty(); }));
    return word;
  }
};

TEST_F(MethodChannelTest, AnswersCallsFromDart) {
  Handle([](const cw::MethodCall<>& call, std::unique_ptr<cw::MethodResult<>> result) {
    EXPECT_EQ(call.GetMethodName(), "double");
    result->Success(EncodableValue(2 * *call.GetArguments()->AsInt64()));
  });
  const MethodOutcome outcome = Call("double", EncodableValue(21));
  EXPECT_EQ(outcome.kind, MethodOutcome::Kind::Success);
  EXPECT_EQ(outcome.value.AsInt64(), 42);
}

TEST_F(MethodChannelTest, SpeaksTheBytesThatDartSpeaks) {
  Handle([](const cw::MethodCall<>&, std::unique_ptr<cw::MethodResult<>> result) {
    result->Success(EncodableValue(true));
  });
  EXPECT_EQ(SendRaw({0x07, 0x04, 0x70, 0x69, 0x6E, 0x67, 0x00}), (Bytes{0x00, 0x01}));
}

TEST_F(MethodChannelTest, AnswersWithErrorsAndTheirData) {
  Handle([](const cw::MethodCall<>&, std::unique_ptr<cw::MethodResult<>> result) {
    result->Error("E", "broken", EncodableValue(5));
  });
  const MethodOutcome outcome = Call("any");
  EXPECT_EQ(outcome.kind, MethodOutcome::Kind::Error);
  EXPECT_EQ(outcome.code, "E");
  EXPECT_EQ(outcome.message, "broken");
  EXPECT_EQ(outcome.details.AsInt64(), 5);
}

TEST_F(MethodChannelTest, AnswersThatAMethodIsNotImplemented) {
  Handle([](const cw::MethodCall<>&, std::unique_ptr<cw::MethodResult<>> result) {
    result->NotImplemented();
  });
  EXPECT_EQ(Call("any").kind, MethodOutcome::Kind::NotImplemented);
}

TEST_F(MethodChannelTest, AnswersLater) {
  std::unique_ptr<cw::MethodResult<>> kept;
  Handle([&kept](const cw::MethodCall<>&, std::unique_ptr<cw::MethodResult<>> result) {
    kept = std::move(result);
  });
  std::optional<MethodOutcome> outcome;
  Dart().InvokeMethod("channel", "any", {}, [&outcome](const auto& got) { outcome = got; });
  ASSERT_TRUE(RunUntil([&kept] { return kept != nullptr; }));
  EXPECT_EQ(Dart().CountPendingResponses(), 1U);
  kept->Success();
  ASSERT_TRUE(RunUntil([&outcome] { return outcome.has_value(); }));
  EXPECT_EQ(outcome->kind, MethodOutcome::Kind::Success);
  EXPECT_TRUE(outcome->value.IsNull());
}

TEST_F(MethodChannelTest, AnswersAtMostOnce) {
  Handle([](const cw::MethodCall<>&, std::unique_ptr<cw::MethodResult<>> result) {
    result->Success(EncodableValue(1));
    result->Success(EncodableValue(2));
    result->NotImplemented();
  });
  constexpr const char* kLine =
      "Error: Only one of Success, Error, or NotImplemented can be called, and it can be called "
      "exactly once. Ignoring duplicate result.\n";
  EXPECT_EQ(StderrOf([this] { EXPECT_EQ(Call("any").value.AsInt64(), 1); }),
            std::string(kLine) + kLine);
}

TEST_F(MethodChannelTest, ComplainsAboutAResultThatIsDropped) {
  bool handled = false;
  Handle([&handled](const cw::MethodCall<>&, const auto&) { handled = true; });
  EXPECT_EQ(StderrOf([&] {
              Dart().InvokeMethod("channel", "any");
              EXPECT_TRUE(RunUntil([&handled] { return handled; }));
            }),
            "Warning: Failed to respond to a message. This is a memory leak.\n");
}

TEST_F(MethodChannelTest, AnswersAfterTheEngineIsGoneHarmlessly) {
  std::unique_ptr<cw::MethodResult<>> kept;
  Handle([&kept](const cw::MethodCall<>&, std::unique_ptr<cw::MethodResult<>> result) {
    kept = std::move(result);
  });
  bool answered = false;
  Dart().InvokeMethod("channel", "any", {}, [&answered](const auto&) { answered = true; });
  ASSERT_TRUE(RunUntil([&kept] { return kept != nullptr; }));
  engine_.reset();
  kept->Success();
  EXPECT_FALSE(answered);
}

TEST_F(MethodChannelTest, AHandlerMayEndTheEngine) {
  veltra::test::Tracker tracker;
  Handle([this, tracked = tracker.Track()](const cw::MethodCall<>&, const auto& result) {
    engine_.reset();
    messenger_.reset();
    result->Success(EncodableValue("late"));
  });
  int answers = 0;
  Dart().InvokeMethod("channel", "any", {}, [&answers](const MethodOutcome& outcome) {
    EXPECT_EQ(outcome.kind, MethodOutcome::Kind::NotImplemented);
    ++answers;
  });
  veltra::host::Engine other;
  EXPECT_TRUE(other.RunUntil([this] { return messenger_ == nullptr; }));
  EXPECT_TRUE(tracker.IsReleased());
  EXPECT_LE(answers, 1);
}

TEST_F(MethodChannelTest, RefusesAMessageThatIsNoCall) {
  Handle([](const cw::MethodCall<>&, const auto&) { FAIL() << "called"; });
  EXPECT_THAT(StderrOf([this] {
                EXPECT_TRUE(SendRaw({0x03, 1, 0, 0, 0}).empty());
              }),
              testing::EndsWith("a message on the channel \"channel\" is no method call.\n"));
  EXPECT_NE(StderrOf([this] { EXPECT_TRUE(SendRaw({}).empty()); }), "");
}

TEST_F(ChannelTest, PrintNoControlCharacterOfTheirNames) {
  const std::string name = "a\nb\x1b";
  cw::MethodChannel<>(messenger_.get(), name).SetMethodCallHandler([](const auto&, const auto&) {});
  const Bytes no_call = {0x03, 1, 0, 0, 0};
  EXPECT_THAT(
      StderrOf([this, &name, &no_call] {
        bool answered = false;
        Dart().Send(name, no_call, [&answered](const Bytes&) { answered = true; });
        EXPECT_TRUE(RunUntil([&answered] { return answered; }));
      }),
      testing::EndsWith("Error: a message on the channel \"a\\nb\\x1b\" is no method call.\n"));
}

TEST_F(MethodChannelTest, RefusesAMessageBeyondTheCodecsBounds) {
  Handle([](const cw::MethodCall<>&, const auto&) { FAIL() << "called"; });
  // A list of four thousand million elements that are not there.
  StderrOf([this] {
    EXPECT_TRUE(SendRaw({0x07, 1, 'x', 0x0C, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF}).empty());
  });
}

TEST_F(MethodChannelTest, StopsToHandleWhenTheHandlerIsRemoved) {
  veltra::test::Tracker tracker;
  Handle([tracked = tracker.Track()](const cw::MethodCall<>&, const auto& result) {
    result->Success();
  });
  EXPECT_EQ(Call("any").kind, MethodOutcome::Kind::Success);
  EXPECT_FALSE(tracker.IsReleased());
  Handle(nullptr);
  EXPECT_TRUE(tracker.IsReleased());
  EXPECT_EQ(Call("any").kind, MethodOutcome::Kind::NotImplemented);
}

TEST_F(MethodChannelTest, CallsDart) {
  Dart().SetMethodCallHandler(
      "channel", [](const std::string& method, const EncodableValue& arguments, auto result) {
        result->Success(EncodableValue(method + " " + *arguments.AsString()));
      });
  EXPECT_EQ(InvokeDart(), "value ask what");
}

TEST_F(MethodChannelTest, HearsOfDartsErrors) {
  Dart().SetMethodCallHandler("channel", [](const std::string&, const EncodableValue&,
                                            auto result) { result->Error("D"); });
  EXPECT_EQ(InvokeDart(), "error D");
}

TEST_F(MethodChannelTest, HearsThatNobodyListens) { EXPECT_EQ(InvokeDart(), "not implemented"); }

TEST_F(MethodChannelTest, HearsOfAReplyThatCannotBeRead) {
  Dart().SetMessageHandler("channel", [](const Bytes&, const auto& reply) { reply({2, 0}); });
  EXPECT_EQ(InvokeDart(), "error malformed-reply");
  Dart().SetMessageHandler("channel", [](const Bytes&, const auto& reply) {
    reply({0, 0x0C, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF});
  });
  StderrOf([this] { EXPECT_EQ(InvokeDart(), "error malformed-reply"); });
}

TEST_F(MethodChannelTest, CallsDartWithoutWaitingForAResult) {
  std::string got;
  Dart().SetMethodCallHandler(
      "channel", [&got](const std::string& method, const EncodableValue& arguments, auto result) {
        got = method + (arguments.IsNull() ? " nothing" : " something");
        result->NotImplemented();
      });
  cw::MethodChannel<>(messenger_.get(), "channel").InvokeMethod("ping");
  EXPECT_TRUE(RunUntil([&got] { return !got.empty(); }));
  EXPECT_EQ(got, "ping nothing");
}

TEST_F(MethodChannelTest, HearsThatNobodyAnswersWhenTheEngineEnds) {
  std::unique_ptr<cw::MethodResult<>> kept;
  Dart().SetMethodCallHandler(
      "channel", [&kept](const auto&, const auto&, auto result) { kept = std::move(result); });
  std::string word;
  cw::MethodChannel<>(messenger_.get(), "channel")
      .InvokeMethod("ask", nullptr,
                    std::make_unique<cw::MethodResultFunctions<>>(
                        nullptr, nullptr, [&word] { word = "not implemented"; }));
  RunPosted();
  EXPECT_EQ(word, "");
  engine_.reset();
  EXPECT_EQ(word, "not implemented");
  kept->Success();
  EXPECT_EQ(word, "not implemented");
}

TEST_F(MethodChannelTest, DoesNothingWithoutAMessengerAndAfterIt) {
  const cw::MethodChannel<> none(nullptr, "channel");
  none.InvokeMethod("ping");
  none.SetMethodCallHandler(nullptr);
  const cw::MethodChannel<> channel(messenger_.get(), "channel");
  messenger_.reset();
  channel.InvokeMethod("ping");
  channel.SetMethodCallHandler([](const auto&, const auto&) {});
  EXPECT_FALSE(Dart().HasPluginHandler("channel"));
}

class EventChannelTest : public ChannelTest {
 protected:
  using Sink = std::unique_ptr<cw::EventSink<>>;
  using Refusal = std::unique_ptr<cw::StreamHandlerError<>>;

  // A handler that keeps the sink and writes down what it is told.
  void Handle() {
    cw::EventChannel<>(messenger_.get(), "channel")
        .SetStreamHandler(std::make_unique<cw::StreamHandlerFunctions<>>(
            [this](const EncodableValue* arguments, Sink events) -> Refusal {
              log_.push_back(arguments->IsNull() ? "listen" : "listen " + *arguments->AsString());
              older_events_ = std::move(events_);
              events_ = std::move(events);
              return nullptr;
            },
            [this](const EncodableValue* arguments) -> Refusal {
              log_.push_back(arguments == nullptr ? "cancel by listen" : "cancel");
              return nullptr;
            }));
  }

  MethodOutcome Listen(const EncodableValue& arguments = {}) {
    std::optional<MethodOutcome> result;
    Dart().ListenEvents(
        "channel",
        {[this](const EncodableValue& event) { heard_.push_back(*event.AsString()); },
         [this](const std::string& code, const std::string& message, const EncodableValue&) {
           heard_.push_back("error " + code + " " + message);
         },
         [this] { heard_.push_back("done"); }},
        arguments, [&result](const MethodOutcome& outcome) { result = outcome; });
    EXPECT_TRUE(RunUntil([&result] { return result.has_value(); }));
    return result.value_or(MethodOutcome());
  }

  MethodOutcome Cancel() {
    std::optional<MethodOutcome> result;
    Dart().CancelEvents("channel", {},
                        [&result](const MethodOutcome& outcome) { result = outcome; });
    EXPECT_TRUE(RunUntil([&result] { return result.has_value(); }));
    return result.value_or(MethodOutcome());
  }

  Sink events_;
  Sink older_events_;
  std::vector<std::string> log_;
  std::vector<std::string> heard_;
};

TEST_F(EventChannelTest, StreamsEventsErrorsAndTheEndInOrder) {
  Handle();
  EXPECT_EQ(Listen(EncodableValue("fast")).kind, MethodOutcome::Kind::Success);
  events_->Success(EncodableValue("one"));
  events_->Error("E", "oops");
  events_->Success(EncodableValue("two"));
  events_->EndOfStream();
  RunPosted();
  EXPECT_THAT(heard_, ElementsAre("one", "error E oops", "two", "done"));
  EXPECT_THAT(log_, ElementsAre("listen fast"));
}

TEST_F(EventChannelTest, DropsEventsAfterTheEndOfTheStream) {
  Handle();
  Listen();
  events_->EndOfStream();
  events_->Success(EncodableValue("late"));
  events_->EndOfStream();
  RunPosted();
  EXPECT_THAT(heard_, ElementsAre("done"));
  // Dart still says that it is through.
  EXPECT_EQ(Cancel().kind, MethodOutcome::Kind::Success);
  EXPECT_THAT(log_, ElementsAre("listen", "cancel"));
}

TEST_F(EventChannelTest, DropsEventsAfterDartCancelled) {
  Handle();
  Listen();
  EXPECT_EQ(Cancel().kind, MethodOutcome::Kind::Success);
  std::size_t messages = 0;
  Dart().SetMessageHandler("channel", [&messages](const Bytes&, const auto&) { ++messages; });
  events_->Success(EncodableValue("late"));
  RunPosted();
  EXPECT_EQ(messages, 0U);
  EXPECT_THAT(log_, ElementsAre("listen", "cancel"));
}

TEST_F(EventChannelTest, ASecondListenCancelsTheFirst) {
  Handle();
  Listen();
  Listen(EncodableValue("again"));
  EXPECT_THAT(log_, ElementsAre("listen", "cancel by listen", "listen again"));
  older_events_->Success(EncodableValue("from the first"));
  events_->Success(EncodableValue("from the second"));
  RunPosted();
  EXPECT_THAT(heard_, ElementsAre("from the second"));
}

TEST_F(EventChannelTest, RefusesToCancelWhatNobodyListensTo) {
  Handle();
  const MethodOutcome outcome = Cancel();
  EXPECT_EQ(outcome.kind, MethodOutcome::Kind::Error);
  EXPECT_EQ(outcome.code, "no-stream");
  EXPECT_TRUE(log_.empty());
}

TEST_F(EventChannelTest, PassesOnThatTheHandlerRefuses) {
  Sink kept;
  cw::EventChannel<>(messenger_.get(), "channel")
      .SetStreamHandler(std::make_unique<cw::StreamHandlerFunctions<>>(
          [&kept](const EncodableValue*, Sink events) {
            kept = std::move(events);
            return Refusal(new cw::StreamHandlerError<>{"busy", "come back later",
                                                        std::make_unique<EncodableValue>(60)});
          },
          nullptr));
  const MethodOutcome outcome = Listen();
  EXPECT_EQ(outcome.kind, MethodOutcome::Kind::Error);
  EXPECT_EQ(outcome.code, "busy");
  EXPECT_EQ(outcome.message, "come back later");
  EXPECT_EQ(outcome.details.AsInt64(), 60);
  kept->Success(EncodableValue("unheard"));
  RunPosted();
  EXPECT_TRUE(heard_.empty());
  EXPECT_EQ(Cancel().code, "no-stream");
}

TEST_F(EventChannelTest, EndsTheStreamWhenTheHandlerIsRemovedOrReplaced) {
  Handle();
  Listen();
  cw::EventChannel<>(messenger_.get(), "channel").SetStreamHandler(nullptr);
  events_->Success(EncodableValue("late"));
  RunPosted();
  EXPECT_TRUE(heard_.empty());
  EXPECT_THAT(log_, ElementsAre("listen"));
  EXPECT_EQ(Cancel().kind, MethodOutcome::Kind::NotImplemented);
}

TEST_F(EventChannelTest, AHandlerThatRemovesItselfWhileItIsAskedToListenSendsNothingMore) {
  const cw::EventChannel<> channel(messenger_.get(), "channel");
  channel.SetStreamHandler(std::make_unique<cw::StreamHandlerFunctions<>>(
      [&channel](const EncodableValue*, Sink events) -> Refusal {
        events->Success(EncodableValue("before"));
        channel.SetStreamHandler(nullptr);
        events->Success(EncodableValue("after"));
        events->EndOfStream();
        return nullptr;
      },
      nullptr));
  EXPECT_EQ(Listen().kind, MethodOutcome::Kind::Success);
  RunPosted();
  EXPECT_THAT(heard_, ElementsAre("before"));
  EXPECT_FALSE(Dart().HasPluginHandler("channel"));
}

TEST_F(EventChannelTest, AHandlerThatReplacesItselfWhileItIsAskedToListenSendsNothingMore) {
  const cw::EventChannel<> channel(messenger_.get(), "channel");
  channel.SetStreamHandler(std::make_unique<cw::StreamHandlerFunctions<>>(
      [this](const EncodableValue*, Sink events) -> Refusal {
        Handle();
        events->Success(EncodableValue("from the first"));
        return nullptr;
      },
      nullptr));
  Listen();
  RunPosted();
  EXPECT_TRUE(heard_.empty());
  EXPECT_EQ(Cancel().code, "no-stream") << "nobody has listened to the second handler";
  Listen();
  events_->Success(EncodableValue("from the second"));
  RunPosted();
  EXPECT_THAT(heard_, ElementsAre("from the second"));
}

TEST_F(EventChannelTest, AHandlerThatRemovesItselfAsASecondListenCancelsItIsNotAskedToListen) {
  const cw::EventChannel<> channel(messenger_.get(), "channel");
  std::vector<std::string> log;
  channel.SetStreamHandler(std::make_unique<cw::StreamHandlerFunctions<>>(
      [&log](const EncodableValue*, const Sink&) -> Refusal {
        log.emplace_back("listen");
        return nullptr;
      },
      [&](const EncodableValue*) -> Refusal {
        log.emplace_back("cancel");
        channel.SetStreamHandler(nullptr);
        return nullptr;
      }));
  Listen();
  EXPECT_EQ(Listen().code, "no-stream");
  EXPECT_THAT(log, ElementsAre("listen", "cancel"));
}

TEST_F(EventChannelTest, KnowsNoOtherMethods) {
  Handle();
  EXPECT_EQ(Call("pause").kind, MethodOutcome::Kind::NotImplemented);
  StderrOf([this] { EXPECT_TRUE(SendRaw({1}).empty()); });
}

TEST_F(EventChannelTest, SinksOutliveMessengerAndEngine) {
  Handle();
  Listen();
  messenger_.reset();
  events_->Success(EncodableValue("late"));
  engine_.reset();
  events_->EndOfStream();
  EXPECT_TRUE(heard_.empty());
}

TEST_F(EventChannelTest, AHandlerMayEndTheEngineWhileItIsAskedToListen) {
  cw::EventChannel<>(messenger_.get(), "channel")
      .SetStreamHandler(std::make_unique<cw::StreamHandlerFunctions<>>(
          [this](const EncodableValue*, Sink events) -> Refusal {
            engine_.reset();
            messenger_.reset();
            events->Success(EncodableValue("late"));
            return nullptr;
          },
          nullptr));
  Dart().ListenEvents("channel", {});
  veltra::host::Engine other;
  EXPECT_TRUE(other.RunUntil([this] { return messenger_ == nullptr; }));
}

}  // namespace
