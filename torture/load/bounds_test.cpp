// Messages at each bound, one byte under and one byte over it, and one without an end.

#include <RuntimeManager/Error.h>
#include <RuntimeManager/IntentsInvoker.h>
#include <RuntimeManager/RuntimeDispatcher.h>
#include <gmock/gmock.h>

#include <QCoreApplication>
#include <QJsonDocument>
#include <QJsonObject>
#include <utility>
#include <vector>

#include "kit/service.h"
#include "load.h"

namespace tarv::test {
namespace {

using testing::AllOf;
using testing::HasSubstr;

// Of an envelope without its text: {"data":""}
constexpr std::size_t kEnvelope = 11;

struct Bound {
  const char* name;
  std::size_t bytes;
};

void PrintTo(const Bound& bound, std::ostream* stream) { *stream << bound.name; }

// A line that one read takes, one that several take, and one that goes the way of large texts.
constexpr Bound kBounds[] = {{"small", 1'000}, {"medium", 100'000}, {"large", 3'000'000}};

class MessageBound : public ServiceTest, public testing::WithParamInterface<Bound> {
 protected:
  static void ExpectTooLong(const Client& client) {
    ASSERT_TRUE(client.WaitFor(Event::kDisconnect));
    const Event& end = client.Last(Event::kDisconnect);
    EXPECT_EQ(end.code, RuntimeManager::Error::kMessageTooLong);
    EXPECT_THAT(end.text, AllOf(HasSubstr(std::to_string(GetParam().bytes) + " bytes"),
                                HasSubstr("RUNTIME_MANAGER_MAX_MESSAGE")));
    EXPECT_EQ(client.Count(Event::kDisconnect), 1U);
  }

  const ScopedVariable most_{"RUNTIME_MANAGER_MAX_MESSAGE", std::to_string(GetParam().bytes)};
};

TEST_P(MessageBound, IsForWhatTheApplicationSends) {
  for (const std::size_t size : {GetParam().bytes - 1, GetParam().bytes}) {
    Client& client = NewRunningClient("echo");
    ASSERT_EQ(client.Send(std::string(size - kEnvelope, 'x')), QUARN_RESULT_SUCCESS);
    ASSERT_TRUE(client.WaitForMessages(1)) << size;
    EXPECT_EQ(client.Messages().front().size(), size - kEnvelope);
  }
  Client& other = NewRunningClient("echo");
  Client& client = NewRunningClient("echo");
  client.Send(std::string(GetParam().bytes + 1 - kEnvelope, 'x'));
  ExpectTooLong(client);
  other.Send("still served");
  EXPECT_TRUE(other.WaitForMessages(1));
}

TEST_P(MessageBound, IsForWhatTheTaskSends) {
  for (const std::size_t size : {GetParam().bytes - 1, GetParam().bytes}) {
    const ScopedVariable line("LOADED", "line " + std::to_string(size));
    Client& client = NewRunningClient("loaded");
    ASSERT_TRUE(client.WaitForMessages(1)) << size;
    EXPECT_EQ(client.Messages().front().size(), size - kEnvelope);
    EXPECT_EQ(client.Count(Event::kDisconnect), 0U);
  }
  const ScopedVariable line("LOADED", "line " + std::to_string(GetParam().bytes + 1));
  Client& client = NewRunningClient("loaded");
  ExpectTooLong(client);
  EXPECT_EQ(client.Count(Event::kMessage), 0U);
}

TEST_P(MessageBound, IsTheMostMemoryForALineWithoutAnEnd) {
  Client& other = NewRunningClient("echo");
  const PeakGrowth growth;
  const ScopedVariable endless("LOADED", "endless");
  Client& client = NewRunningClient("loaded");
  ExpectTooLong(client);
  EXPECT_EQ(client.Count(Event::kMessage), 0U);
  EXPECT_LE(growth.Get("a line without an end"), 2 * GetParam().bytes + 8 * kMiB);
  other.Send("still served");
  EXPECT_TRUE(other.WaitForMessages(1));
}

INSTANTIATE_TEST_SUITE_P(Each, MessageBound, testing::ValuesIn(kBounds),
                         [](const auto& test) { return std::string(test.param.name); });

// An intent's invocation and its reply are a line each. Not a ServiceTest: a registered intent stays.
class IntentBound : public testing::TestWithParam<Bound> {
 protected:
  IntentBound() {
    RuntimeManager::RuntimeDispatcher::instance()->registerIntent(
        name_, [](const QJsonObject& parameters, const auto& reply) {
          reply(Padded(static_cast<std::size_t>(parameters["reply"].toDouble())));
        });
    QObject::connect(&invoker_, &RuntimeManager::IntentsInvoker::replyReceived, &invoker_,
                     [this](const QJsonObject& reply, const RuntimeManager::Error& error) {
                       replies_.emplace_back(reply, error);
                     });
  }

  static QJsonObject Padded(std::size_t size) {
    return {{"text", QString(static_cast<int>(size), 'x')}};
  }
  static std::size_t SizeOf(const QJsonObject& line) {
    return static_cast<std::size_t>(QJsonDocument(line).toJson(QJsonDocument::Compact).size());
  }

  // What comes of an invocation, or a reply, whose line has so many bytes.
  RuntimeManager::Error InvokeWithALineOf(std::size_t size) {
    QJsonObject second{{"reply", 0}, {"text", ""}};
    const std::size_t around = SizeOf({{"first", QJsonObject()}, {"second", second}});
    second["text"] = QString(static_cast<int>(size - around), 'x');
    return Invoke(second, 0);
  }
  RuntimeManager::Error InvokeForALineOf(std::size_t size) {
    const std::size_t text = size - SizeOf({{"reply", Padded(0)}});
    return Invoke({{"reply", static_cast<double>(text)}}, text);
  }

  RuntimeManager::Error Invoke(const QJsonObject& second, std::size_t text) {
    replies_.clear();
    invoker_.invoke(name_, {}, second);
    EXPECT_TRUE(WaitUntil([this] { return !replies_.empty(); }));
    EXPECT_EQ(replies_.size(), 1U);
    const auto& [reply, error] = replies_.at(0);
    EXPECT_EQ(reply, error.isError() ? QJsonObject() : Padded(text));
    return error;
  }

  void ExpectThatItNamesTheBound(const RuntimeManager::Error& error) const {
    EXPECT_TRUE(error.isError());
    EXPECT_THAT(error.message().toStdString(),
                AllOf(HasSubstr("'" + name_.toStdString() + "'"),
                      HasSubstr(std::to_string(GetParam().bytes) + " bytes"),
                      HasSubstr("RUNTIME_MANAGER_MAX_MESSAGE")));
  }

 private:
  // An intent stays registered as long as the process.
  static QString NewName() {
    static int number = 0;
    return QString("bound%1").arg(++number);
  }

  const RuntimeFolder folder_;
  const ScopedVariable most_{"RUNTIME_MANAGER_MAX_MESSAGE", std::to_string(GetParam().bytes)};
  int argument_count_ = 1;
  char program_[7] = "bounds";
  char* arguments_[2] = {program_, nullptr};
  QCoreApplication application_{argument_count_, arguments_};
  const QString name_ = NewName();
  RuntimeManager::IntentsInvoker invoker_{nullptr};
  std::vector<std::pair<QJsonObject, RuntimeManager::Error>> replies_;
};

TEST_P(IntentBound, IsForAnInvocation) {
  EXPECT_FALSE(InvokeWithALineOf(GetParam().bytes - 1).isError());
  EXPECT_FALSE(InvokeWithALineOf(GetParam().bytes).isError());
  ExpectThatItNamesTheBound(InvokeWithALineOf(GetParam().bytes + 1));
  EXPECT_FALSE(InvokeWithALineOf(GetParam().bytes).isError());
}

TEST_P(IntentBound, IsForAReply) {
  EXPECT_FALSE(InvokeForALineOf(GetParam().bytes - 1).isError());
  EXPECT_FALSE(InvokeForALineOf(GetParam().bytes).isError());
  ExpectThatItNamesTheBound(InvokeForALineOf(GetParam().bytes + 1));
  EXPECT_FALSE(InvokeForALineOf(GetParam().bytes).isError());
}

INSTANTIATE_TEST_SUITE_P(Each, IntentBound, testing::ValuesIn(kBounds),
                         [](const auto& test) { return std::string(test.param.name); });

}  // namespace
}  // namespace tarv::test
