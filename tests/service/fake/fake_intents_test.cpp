// The intent manager on a platform whose replies the test gives one by one.

#include <RuntimeManager/IntentsInvoker.h>
#include <RuntimeManager/RuntimeDispatcher.h>
#include <cw/encodable_value.h>
#include <gmock/gmock.h>
#include <tarv/tarv_capi.h>

#include <QCoreApplication>
#include <future>
#include <new>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "../failing_allocation.h"
#include "support/capture.h"
#include "support/log_line.h"

namespace tarv::test {
namespace {

using RuntimeManager::Error;
using RuntimeManager::IntentsInvoker;
using RuntimeManager::RuntimeDispatcher;
using testing::Contains;
using testing::Each;
using testing::ElementsAre;
using testing::IsEmpty;

int argument_count = 1;
char program_name[] = "fake_platform_tests";
char* arguments[] = {program_name, nullptr};

class FakeIntents : public testing::Test {
 protected:
  FakeIntents() : application_(argument_count, arguments) {
    RuntimeDispatcher::instance()->handlers.clear();
    TARVProcTableLoad(&root_, sizeof(root_));
    root_.IntentManagerProcTableLoad(&table_, sizeof(table_));
    manager_ = root_.Initialize();
    intents_ = root_.GetIntentManager(manager_);
  }
  ~FakeIntents() override {
    root_.Release(manager_);
    RuntimeDispatcher::instance()->handlers.clear();
  }

  // What the platform was asked since the last call.
  static std::vector<std::string> TakeJournal() { return RuntimeManager::Journal::Get().Take(); }

  // What a slot reports to: lines "NAME true", "NAME false", "NAME released".
  struct Listener {
    std::vector<std::string>* log;
    std::string name;
    std::function<void()> on_callback;
  };

  QuarnResult OpenUri(const char* uri, std::function<void()> on_callback = {}) {
    TARVOpenUriSlot slot{};
    slot.size = sizeof(slot);
    slot.callback = [](void* user_data, bool success) {
      const auto* const listener = static_cast<Listener*>(user_data);
      listener->log->push_back(listener->name + (success ? " true" : " false"));
      if (listener->on_callback) {
        listener->on_callback();
      }
    };
    slot.release = [](void* user_data) {
      auto* const listener = static_cast<Listener*>(user_data);
      listener->log->push_back(listener->name + " released");
      delete listener;
    };
    slot.user_data = new Listener{&log_, uri, std::move(on_callback)};
    return table_.OpenUri(intents_, uri, &slot);
  }

  static IntentsInvoker& Invoker() { return *IntentsInvoker::GetLatest(); }

  static std::vector<std::string> InvokedUris() {
    std::vector<std::string> uris;
    for (const auto& invocation : Invoker().invocations) {
      uris.push_back(invocation.second["uri"].toString().toStdString());
    }
    return uris;
  }

  static void Reply(const Error& error = {}) { Q_EMIT Invoker().replyReceived({}, error); }

  // Registers an intent whose callback is `callback`.
  void Register(void (*callback)(void*, TARVReplyIntentSlot*), void* user_data) {
    TARVRegisterIntentSlot slot{};
    slot.size = sizeof(slot);
    slot.callback = callback;
    slot.user_data = user_data;
    ASSERT_EQ(table_.RegisterIntent(intents_, "weigh", &slot), QUARN_RESULT_SUCCESS);
  }

  // Invokes it and returns the answers that the platform got.
  static std::vector<QJsonObject> Invoke() {
    std::vector<QJsonObject> answers;
    RuntimeDispatcher::instance()->handlers.at("weigh")(
        {}, [&answers](const QJsonObject& answer) { answers.push_back(answer); });
    return answers;
  }

  // Registers an intent that answers with `bytes`, invokes it, and returns the answers.
  std::vector<QJsonObject> AnswersTo(quarn::Buffer bytes) {
    Register(
        [](void* user_data, TARVReplyIntentSlot* reply) {
          const auto* const buffer = static_cast<quarn::Buffer*>(user_data);
          reply->callback(reply->user_data, buffer->GetData(), buffer->GetSize());
          reply->release(reply->user_data);
        },
        &bytes);
    return Invoke();
  }

  QCoreApplication application_;
  TARVProcTable root_{};
  TARVIntentManagerProcTable table_{};
  _TARVManagerRef* manager_ = nullptr;
  _TARVIntentManagerRef* intents_ = nullptr;
  std::vector<std::string> log_;
};

TEST_F(FakeIntents, OpenUriInvokesOpenUriWithAnEmptyObjectAndTheUri) {
  ASSERT_EQ(OpenUri("https://example.org/ä"), QUARN_RESULT_SUCCESS);
  ASSERT_EQ(Invoker().invocations.size(), 1U);
  EXPECT_EQ(Invoker().invocations[0].name, "OpenURI");
  EXPECT_EQ(Invoker().invocations[0].first, QJsonObject());
  EXPECT_EQ(Invoker().invocations[0].second, (QJsonObject{{"uri", "https://example.org/ä"}}));
}

TEST_F(FakeIntents, ThreeUrisAreOpenedOneAtATimeInOrder) {
  OpenUri("a:1");
  OpenUri("a:2");
  OpenUri("a:3");
  EXPECT_THAT(InvokedUris(), ElementsAre("a:1"));
  Reply();
  EXPECT_THAT(InvokedUris(), ElementsAre("a:1", "a:2"));
  Reply();
  Reply();
  EXPECT_THAT(InvokedUris(), ElementsAre("a:1", "a:2", "a:3"));
  EXPECT_THAT(log_, ElementsAre("a:1 true", "a:1 released", "a:2 true", "a:2 released", "a:3 true",
                                "a:3 released"));
}

TEST_F(FakeIntents, ErrorGivesFalseAndTheNextRequestIsStillSent) {
  OpenUri("a:1");
  OpenUri("a:2");
  Reply(Error(5, "nobody can open it"));
  EXPECT_THAT(log_, ElementsAre("a:1 false", "a:1 released"));
  EXPECT_THAT(InvokedUris(), ElementsAre("a:1", "a:2"));
}

TEST_F(FakeIntents, ReplyToNothingChangesNothingAndSendsNothing) {
  Reply();
  EXPECT_THAT(Invoker().invocations, IsEmpty());
  OpenUri("a:1");
  EXPECT_THAT(InvokedUris(), ElementsAre("a:1"));
}

TEST_F(FakeIntents, UriOpenedFromInsideACallbackTakesItsTurn) {
  OpenUri("a:1", [this] { OpenUri("a:3"); });
  OpenUri("a:2");
  Reply();
  Reply();
  Reply();
  EXPECT_THAT(InvokedUris(), ElementsAre("a:1", "a:2", "a:3"));
}

TEST_F(FakeIntents, PendingSlotsAreReleasedUncalledWhenTheManagerReleases) {
  OpenUri("a:1");
  OpenUri("a:2");
  root_.Release(manager_);
  EXPECT_THAT(log_, ElementsAre("a:1 released", "a:2 released"));
}

TEST_F(FakeIntents, ManagerMayReleaseFromInsideACallback) {
  OpenUri("a:1", [this] { root_.Release(manager_); });
  OpenUri("a:2");
  Reply();
  EXPECT_THAT(log_, ElementsAre("a:1 true", "a:1 released", "a:2 released"));
}

TEST_F(FakeIntents, ManagersReleaseInsideACallbackSendsNoFurtherRequest) {
  OpenUri("a:1", [this] {
    root_.Release(manager_);
    TakeJournal();
  });
  OpenUri("a:2");
  Reply();
  EXPECT_THAT(log_, ElementsAre("a:1 true", "a:1 released", "a:2 released"));
  EXPECT_THAT(TakeJournal(), ElementsAre("~IntentsInvoker"));
}

TEST_F(FakeIntents, ExceptionOutOfACallbackDoesNotStopTheQueue) {
  OpenUri("a:1", [] { throw std::runtime_error("not now"); });
  OpenUri("a:2");
  EXPECT_THROW(Reply(), std::runtime_error);
  EXPECT_THAT(InvokedUris(), ElementsAre("a:1", "a:2"));
}

TEST_F(FakeIntents, MapAnswerReachesThePlatformAsAJsonObject) {
  const cw::EncodableValue answer(cw::EncodableMap{{"grams", 7}, {"name", "x"}});
  EXPECT_THAT(AnswersTo(answer.Serialize()), ElementsAre(QJsonObject{{"grams", 7}, {"name", "x"}}));
}

TEST_F(FakeIntents, ListAnswerBecomesAnEmptyObjectWithALine) {
  const cw::EncodableValue answer(cw::EncodableList{1, 2});
  std::vector<QJsonObject> answers;
  EXPECT_THAT(StdoutOf([&] { answers = AnswersTo(answer.Serialize()); }),
              IsLogLine("error", "Could not convert intent reply to a JSON object."));
  EXPECT_THAT(answers, ElementsAre(QJsonObject()));
}

TEST_F(FakeIntents, UndecodableAnswerBecomesAnEmptyObjectWithALine) {
  std::vector<QJsonObject> answers;
  EXPECT_THAT(
      StdoutOf([&] { answers = AnswersTo(quarn::Buffer(std::vector<std::uint8_t>{0x20})); }),
      IsLogLine("error", "Could not convert intent reply to a JSON object."));
  EXPECT_THAT(answers, ElementsAre(QJsonObject()));
}

TEST_F(FakeIntents, ReplySlotIs32BytesAndMayBeUsedAfterTheCall) {
  TARVReplyIntentSlot kept{};
  Register([](void* copy,
              TARVReplyIntentSlot* reply) { *static_cast<TARVReplyIntentSlot*>(copy) = *reply; },
           &kept);
  std::vector<QJsonObject> answers;
  RuntimeDispatcher::instance()->handlers.at("weigh")(
      {}, [&answers](const QJsonObject& answer) { answers.push_back(answer); });
  EXPECT_EQ(kept.size, 32U);
  EXPECT_THAT(answers, IsEmpty());
  const auto bytes = cw::EncodableValue(cw::EncodableMap{{"late", true}}).Serialize();
  kept.callback(kept.user_data, bytes.GetData(), bytes.GetSize());
  kept.release(kept.user_data);
  EXPECT_THAT(answers, ElementsAre(QJsonObject{{"late", true}}));
}

TEST_F(FakeIntents, ReleaseWithoutAnAnswerFreesTheReplyFunctionAndSendsNothing) {
  Register([](void*, TARVReplyIntentSlot* reply) { reply->release(reply->user_data); }, nullptr);
  const auto alive = std::make_shared<int>(0);
  int answers = 0;
  RuntimeDispatcher::instance()->handlers.at("weigh")(
      {}, [alive, &answers](const QJsonObject&) { ++answers; });
  EXPECT_EQ(alive.use_count(), 1);
  EXPECT_EQ(answers, 0);
}

TEST_F(FakeIntents, IntentWithoutACallbackFreesTheReplyFunction) {
  Register(nullptr, nullptr);
  const auto alive = std::make_shared<int>(0);
  RuntimeDispatcher::instance()->handlers.at("weigh")({}, [alive](const QJsonObject&) {});
  EXPECT_EQ(alive.use_count(), 1);
}

TEST_F(FakeIntents, RegisteredIntentStaysAfterTheManagersRelease) {
  int calls = 0;
  Register(
      [](void* count, TARVReplyIntentSlot* reply) {
        ++*static_cast<int*>(count);
        reply->release(reply->user_data);
      },
      &calls);
  root_.Release(manager_);
  Invoke();
  EXPECT_EQ(calls, 1);
}

TEST_F(FakeIntents, RegistrationsSlotIsReleasedWhenThePlatformDropsIt) {
  TARVRegisterIntentSlot slot{};
  slot.size = sizeof(slot);
  slot.callback = [](void*, TARVReplyIntentSlot*) { ADD_FAILURE(); };
  slot.release = [](void* log) {
    static_cast<std::vector<std::string>*>(log)->push_back("released");
  };
  slot.user_data = &log_;
  ASSERT_EQ(table_.RegisterIntent(intents_, "weigh", &slot), QUARN_RESULT_SUCCESS);
  root_.Release(manager_);
  EXPECT_THAT(log_, IsEmpty());
  RuntimeDispatcher::instance()->handlers.clear();
  EXPECT_THAT(log_, ElementsAre("released"));
}

// What is called of a slot, by the size that it states: 'c' the callback, 'r' the release; in
// capitals with the user data.
struct CalledAtSize {
  std::size_t size;
  const char* called;
};

// The last one belongs to a caller that knows more fields than the library.
constexpr CalledAtSize kSlotSizes[] = {{0, ""},    {15, ""},   {16, "c"},  {23, "c"},
                                       {24, "cr"}, {31, "cr"}, {32, "CR"}, {64, "CR"}};

std::string& Called() {
  static std::string called;
  return called;
}

template <char letter>
void Note(const void* user_data) {
  Called() += user_data == nullptr ? letter : static_cast<char>(letter - 'a' + 'A');
}

TEST_F(FakeIntents, UrisFieldsThatTheSizeCoversAreCalledAndNoOthers) {
  TARVOpenUriSlot slot{};
  slot.callback = [](void* user_data, bool) { Note<'c'>(user_data); };
  slot.release = [](void* user_data) { Note<'r'>(user_data); };
  slot.user_data = this;
  for (const CalledAtSize& row : kSlotSizes) {
    SCOPED_TRACE(row.size);
    Called().clear();
    slot.size = row.size;
    ASSERT_EQ(table_.OpenUri(intents_, "a:1", &slot), QUARN_RESULT_SUCCESS);
    Reply();
    EXPECT_EQ(Called(), row.called);
  }
}

TEST_F(FakeIntents, RegistrationsFieldsThatTheSizeCoversAreCalledAndNoOthers) {
  TARVRegisterIntentSlot slot{};
  slot.callback = [](void* user_data, TARVReplyIntentSlot* reply) {
    Note<'c'>(user_data);
    reply->release(reply->user_data);
  };
  slot.release = [](void* user_data) { Note<'r'>(user_data); };
  slot.user_data = this;
  for (const CalledAtSize& row : kSlotSizes) {
    SCOPED_TRACE(row.size);
    Called().clear();
    slot.size = row.size;
    ASSERT_EQ(table_.RegisterIntent(intents_, "weigh", &slot), QUARN_RESULT_SUCCESS);
    Invoke();
    RuntimeDispatcher::instance()->handlers.clear();
    EXPECT_EQ(Called(), row.called);
  }
}

TEST_F(FakeIntents, OpenUriWithoutAUriOrASlotIsInvalidAndQueuesNothing) {
  TARVOpenUriSlot slot{};
  slot.size = sizeof(slot);
  EXPECT_THAT(StdoutOf([&] {
                EXPECT_EQ(table_.OpenUri(intents_, "a:1", nullptr), QUARN_RESULT_INVALID_ARGUMENT);
              }),
              IsLogLine("error", "No uri or callback slot provided."));
  EXPECT_THAT(StdoutOf([&] {
                EXPECT_EQ(table_.OpenUri(intents_, nullptr, &slot), QUARN_RESULT_INVALID_ARGUMENT);
              }),
              IsLogLine("error", "No uri or callback slot provided."));
  EXPECT_THAT(Invoker().invocations, IsEmpty());
}

TEST_F(FakeIntents, RegisterIntentWithoutANameOrASlotIsInvalid) {
  TARVRegisterIntentSlot slot{};
  slot.size = sizeof(slot);
  EXPECT_THAT(StdoutOf([&] {
                EXPECT_EQ(table_.RegisterIntent(intents_, "a", nullptr),
                          QUARN_RESULT_INVALID_ARGUMENT);
              }),
              IsLogLine("error", "No intent name or callback slot provided."));
  EXPECT_THAT(StdoutOf([&] {
                EXPECT_EQ(table_.RegisterIntent(intents_, nullptr, &slot),
                          QUARN_RESULT_INVALID_ARGUMENT);
              }),
              IsLogLine("error", "No intent name or callback slot provided."));
  EXPECT_TRUE(RuntimeDispatcher::instance()->handlers.empty());
}

TEST_F(FakeIntents, EmptyUriIsPassedOn) {
  EXPECT_EQ(OpenUri(""), QUARN_RESULT_SUCCESS);
  EXPECT_THAT(TakeJournal(), Contains(R"(invoke OpenURI {} {"uri":""})"));
}

TEST_F(FakeIntents, EmptyNameIsPassedOn) {
  TARVRegisterIntentSlot slot{};
  slot.size = sizeof(slot);
  EXPECT_EQ(table_.RegisterIntent(intents_, "", &slot), QUARN_RESULT_SUCCESS);
  EXPECT_EQ(RuntimeDispatcher::instance()->handlers.count(""), 1U);
}

TEST_F(FakeIntents, NamesAndUrisAreReadAsUtf8) {
  TARVRegisterIntentSlot slot{};
  slot.size = sizeof(slot);
  table_.RegisterIntent(intents_, "wägen", &slot);
  OpenUri("a:größe");
  const auto journal = TakeJournal();
  EXPECT_THAT(journal, Contains("registerIntent wägen"));
  EXPECT_THAT(journal, Contains(R"(invoke OpenURI {} {"uri":"a:größe"})"));
}

TEST_F(FakeIntents, ArgumentsAreCheckedBeforeTheHandle) {
  const auto unknown = reinterpret_cast<_TARVIntentManagerRef*>(0xFFFFFFFFFFFF);
  std::vector<QuarnResult> results;
  EXPECT_THAT(StdoutOf([&] { results.push_back(table_.OpenUri(unknown, "a:1", nullptr)); }),
              IsLogLine("error", "No uri or callback slot provided."));
  EXPECT_THAT(StdoutOf([&] { results.push_back(table_.RegisterIntent(unknown, "a", nullptr)); }),
              IsLogLine("error", "No intent name or callback slot provided."));
  EXPECT_THAT(results, Each(QUARN_RESULT_INVALID_ARGUMENT));
}

// A lock that is held while the invoker is called would be waited for: the other thread's request
// is not queued by the time that invoke() gives up waiting for it.
TEST_F(FakeIntents, AnotherThreadMayAskWhileTheInvokerIsCalled) {
  for (const bool first : {true, false}) {
    SCOPED_TRACE(first ? "the first request" : "the request that follows a reply");
    std::future<QuarnResult> other;
    std::future_status status = std::future_status::timeout;
    const auto ask_meanwhile = [&] {
      other = std::async(std::launch::async, [this] { return OpenUri("a:other"); });
      status = other.wait_for(std::chrono::seconds(5));
    };
    if (first) {
      Invoker().on_invoke = ask_meanwhile;
      OpenUri("a:1");
    } else {
      OpenUri("a:1");
      OpenUri("a:2");
      Invoker().on_invoke = ask_meanwhile;
    }
    Reply();
    EXPECT_EQ(status, std::future_status::ready);
    EXPECT_EQ(other.get(), QUARN_RESULT_SUCCESS);
    Reply();
    Reply();
  }
}

TEST_F(FakeIntents, UnknownHandleIsRefusedWithALineAndTheSlotNotTaken) {
  TARVOpenUriSlot open{};
  open.size = sizeof(open);
  open.release = [](void*) { ADD_FAILURE() << "released a slot that was not taken"; };
  TARVRegisterIntentSlot registration{};
  registration.size = sizeof(registration);
  registration.release = open.release;
  for (auto* unknown : {static_cast<_TARVIntentManagerRef*>(nullptr),
                        reinterpret_cast<_TARVIntentManagerRef*>(0xFFFFFFFFFFFF)}) {
    EXPECT_THAT(
        StdoutOf([&] { EXPECT_EQ(table_.OpenUri(unknown, "a:1", &open), QUARN_RESULT_REFUSED); }),
        IsLogLine("error", "Intent Manager is not initialized."));
    EXPECT_THAT(StdoutOf([&] {
                  EXPECT_EQ(table_.RegisterIntent(unknown, "a", &registration),
                            QUARN_RESULT_REFUSED);
                }),
                IsLogLine("error", "Intent Manager is not initialized."));
  }
}

TEST_F(FakeIntents, AreMadeWithoutALine) {
  root_.Release(manager_);
  EXPECT_EQ(StdoutOf([this] { intents_ = root_.GetIntentManager(manager_); }), "");
  EXPECT_NE(intents_, nullptr);
}

// A request for which memory runs out fails inside OpenUri, to which its callback may throw.
TEST_F(FakeIntents, PassOnWhatTheCallbackOfAFailedRequestThrows) {
  struct Refusal {};
  struct Slot {
    static void Answer(void* called, bool success) {
      allocations_until_failure = -1;
      if (!success) {
        ++*static_cast<int*>(called);
        throw Refusal();
      }
    }
  };
  int called = 0;
  int caught = 0;
  for (int spare = 0; spare < 100 && IntentsInvoker::GetLatest()->invocations.empty(); ++spare) {
    TARVOpenUriSlot slot{};
    slot.size = sizeof(slot);
    slot.callback = &Slot::Answer;
    slot.user_data = &called;
    try {
      allocations_until_failure = spare;
      table_.OpenUri(intents_, "https://example.org/a/long/way", &slot);
    } catch (const std::bad_alloc&) {
    } catch (const Refusal&) {
      ++caught;
    }
    allocations_until_failure = -1;
  }
  EXPECT_GT(called, 0);
  EXPECT_EQ(caught, called);
  EXPECT_FALSE(IntentsInvoker::GetLatest()->invocations.empty());
}

}  // namespace
}  // namespace tarv::test
