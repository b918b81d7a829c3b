// Every callback of a task's server, of a URI, and at both ends of an intent throws, or sleeps: the
// next message, URI and invocation are served.
#include <RuntimeManager/IntentsInvoker.h>
#include <cw/encodable_value.h>
#include <gtest/gtest.h>
#include <quarn/buffer.h>
#include <tarv/tarv_capi.h>

#include <QCoreApplication>
#include <QJsonObject>
#include <memory>
#include <string>
#include <tuple>

#include "deed.h"
#include "end_to_end/application.h"
#include "events.h"

namespace tarv::test {
namespace {

using Case = std::tuple<const char*, Deed>;

class TaskCallbackThat : public EndToEndTest, public testing::WithParamInterface<Case> {
 protected:
  static std::string GetPlace() { return std::get<const char*>(GetParam()); }
  static bool Throws() { return std::get<Deed>(GetParam()) == Deed::kThrows; }
};

std::string NameOfCase(const testing::TestParamInfo<Case>& info) {
  return NameOf(std::get<const char*>(info.param), std::get<Deed>(info.param));
}

INSTANTIATE_TEST_SUITE_P(Each, TaskCallbackThat,
                         testing::Combine(testing::Values("OnConnected", "OnRequest", "OnNotify"),
                                          testing::Values(Deed::kThrows, Deed::kSleeps)),
                         NameOfCase);

TEST_P(TaskCallbackThat, LetsTheNextMessageBeServed) {
  const ScopedVariable plan("AWKWARD", GetPlace() + (Throws() ? " throws" : " sleeps"));
  const auto connection = StartConnected("awkward");
  EXPECT_EQ(connection->Ask("echo", 1), cw::EncodableValue(1));
  connection->client->SendNotify("note", {});
  connection->Send("echo", 2);
  connection->client->SendNotify("note", {});
  EXPECT_EQ(connection->Ask("echo", 3), cw::EncodableValue(3));
  EXPECT_TRUE(connection->WaitForResponses(1));
  EXPECT_EQ(connection->Ask("thrown"), cw::EncodableValue(Throws() ? 1 : 0));
}

class UriCallbackThat : public EndToEndTest,
                        public RunsEvents,
                        public testing::WithParamInterface<Deed> {
 protected:
  bool Throws() const { return GetParam() == Deed::kThrows; }

  const ScopedVariable handler_{"RUNTIME_MANAGER_URI_HANDLER", "/bin/true"};
  int answers_ = 0;
};

INSTANTIATE_TEST_SUITE_P(Each, UriCallbackThat, testing::Values(Deed::kThrows, Deed::kSleeps),
                         [](const auto& test) { return NameOf("", test.param); });

TEST_P(UriCallbackThat, LetsTheNextUriBeOpened) {
  const auto intents = manager_wrapper_->GetIntentManager();
  for (int i = 0; i < 3; ++i) {
    intents->OpenUri("https://example.com", [this](bool success) {
      EXPECT_TRUE(success);
      if (++answers_ == 1) {
        Do(GetParam());
      }
    });
  }
  ASSERT_TRUE(RunUntil([this] { return answers_ == 3; }));
  EXPECT_EQ(thrown_, Throws() ? 1 : 0);
}

// No EndToEndTest: a registered intent keeps its socket as long as the process.
class IntentCallbackThat : public RunsEvents, public testing::TestWithParam<Case> {
 protected:
  static std::string GetPlace() { return std::get<const char*>(GetParam()); }
  static bool Throws() { return std::get<Deed>(GetParam()) == Deed::kThrows; }

  // A name of its own for each test: an intent stays registered as long as the process.
  static QString NewName() {
    static int number = 0;
    return QString("awkward%1").arg(++number);
  }

  void Register(const QString& name) {
    const Tables tables;
    TARVIntentManagerProcTable table{};
    tables.root.IntentManagerProcTableLoad(&table, sizeof(table));
    TARVRegisterIntentSlot slot{};
    slot.size = sizeof(slot);
    slot.callback = &OnIntent;
    slot.user_data = this;
    ASSERT_EQ(table.RegisterIntent(tables.root.GetIntentManager(tables.root.Initialize()),
                                   name.toUtf8().constData(), &slot),
              QUARN_RESULT_SUCCESS);
  }

  // The reply is released whatever happens, and before the answer in the place that is about that.
  static void OnIntent(void* user_data, TARVReplyIntentSlot* reply) {
    auto& self = *static_cast<IntentCallbackThat*>(user_data);
    const std::unique_ptr<void, void (*)(void*)> owned(reply->user_data, reply->release);
    self.Happen("BeforeTheAnswer");
    const quarn::Buffer answer =
        cw::EncodableValue(cw::EncodableMap{{"number", ++self.invoked_}}).Serialize();
    reply->callback(reply->user_data, answer.GetData(), answer.GetSize());
    self.Happen("AfterTheAnswer");
  }

  void OnReply(const RuntimeManager::Error& error) {
    ++replies_;
    errors_ += error.isError() ? 1 : 0;
    Happen("AtTheInvoker");
  }

  void Happen(const std::string& place) {
    if (place == GetPlace() && !done_) {
      done_ = true;
      Do(std::get<Deed>(GetParam()));
    }
  }

  const RuntimeFolder folder_;
  int argument_count_ = 1;
  char program_[8] = "intents";
  char* arguments_[2] = {program_, nullptr};
  QCoreApplication application_{argument_count_, arguments_};
  bool done_ = false;
  int invoked_ = 0;
  int replies_ = 0;
  int errors_ = 0;
};

INSTANTIATE_TEST_SUITE_P(Each, IntentCallbackThat,
                         testing::Combine(testing::Values("BeforeTheAnswer", "AfterTheAnswer",
                                                          "AtTheInvoker"),
                                          testing::Values(Deed::kThrows, Deed::kSleeps)),
                         NameOfCase);

TEST_P(IntentCallbackThat, LetsTheNextInvocationBeServed) {
  const QString name = NewName();
  Register(name);
  RuntimeManager::IntentsInvoker invoker;
  QObject::connect(
      &invoker, &RuntimeManager::IntentsInvoker::replyReceived, &invoker,
      [this](const QJsonObject& /*reply*/, const RuntimeManager::Error& error) { OnReply(error); });
  for (int i = 0; i < 3; ++i) {
    invoker.invoke(name, {}, {{"number", i}});
  }
  ASSERT_TRUE(RunUntil([this] { return replies_ == 3; }));
  const bool is_lost = Throws() && GetPlace() == "BeforeTheAnswer";
  EXPECT_EQ(errors_, is_lost ? 1 : 0);
  EXPECT_EQ(invoked_, is_lost ? 2 : 3);
  EXPECT_EQ(thrown_, Throws() ? 1 : 0);
}

}  // namespace
}  // namespace tarv::test
