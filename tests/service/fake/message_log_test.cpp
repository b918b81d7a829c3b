// The log of messages, which a variable of the environment turns on for a whole process: this
// program.

#include <RuntimeManager/TaskMessaging.h>
#include <errno.h>
#include <gmock/gmock.h>
#include <stdlib.h>
#include <vorpc/message.h>

#include <QJsonObject>
#include <regex>
#include <sstream>

#include "fake_platform.h"
#include "support/capture.h"

namespace tarv::test {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using vorpc::Message;

// Looked up at the first message.
[[maybe_unused]] const bool is_asked_for = setenv("TARV_LOG_MESSAGES", "1", 1) == 0;

const cw::EncodableValue kParams = cw::EncodableMap{{"n", 1}};

class MessageLog : public FakePlatform {
 protected:
  MessageLog() { Start().complete_start({}); }

  void Send(const std::string& text) const {
    EXPECT_EQ(table_.SendMessage(client_, text.c_str()), QUARN_RESULT_SUCCESS);
  }
  void Send(const Message& message) const { Send(message.ToBase64()); }

  static void Receive(const Message& message) {
    QByteArray text = QByteArray::fromStdString(message.ToBase64());
    Q_EMIT Channel().dataReceived(text);
  }

  // As it comes from a platform that wraps texts up.
  static void ReceiveWrapped(const Message& message) {
    Q_EMIT Channel().messageReceived({{"data", QString::fromStdString(message.ToBase64())}});
  }
};

// The lines that `action` logs, with 0 for each digit of a time; this program is "app".
template <class Action>
std::vector<std::string> LinesOf(Action&& action) {
  std::istringstream output(StderrOf(action));
  std::vector<std::string> lines;
  for (std::string line; std::getline(output, line);) {
    line = std::regex_replace(line, std::regex("^[0-9]+\\.[0-9]{3} "), "0.000 ");
    line = std::regex_replace(line, std::regex(" [0-9]+\\.[0-9] ms "), " 0.0 ms ");
    lines.push_back(std::regex_replace(line, std::regex(program_invocation_short_name), "app"));
  }
  return lines;
}

TEST_F(MessageLog, TellsARequestAndItsAnswerWithItsMethodAndTime) {
  EXPECT_THAT(LinesOf([this] {
                Send(Message::CreateRequest(Message::ID("id7_1"), "count", kParams));
                Receive(Message::CreateResponse(Message::ID("id7_1"), "all"));
              }),
              ElementsAre("0.000 app → worker id7_1 count({\"n\": 1})",
                          "0.000 worker → app id7_1 count 0.0 ms \"all\""));
}

TEST_F(MessageLog, TellsAnErrorThatAnswersARequest) {
  EXPECT_THAT(LinesOf([this] {
                Receive(Message::CreateRequest(Message::ID("id8_1"), "ask", {}));
                Send(Message::CreateError(Message::ID("id8_1"), -32601, "no such method"));
              }),
              ElementsAre("0.000 worker → app id8_1 ask(null)",
                          "0.000 app → worker id8_1 ask 0.0 ms error -32601 \"no such method\""));
}

TEST_F(MessageLog, KnowsNoMethodOfWhatIsAnsweredASecondTime) {
  EXPECT_THAT(LinesOf([this] {
                Send(Message::CreateRequest(Message::ID("id7_1"), "count", {}));
                Receive(Message::CreateResponse(Message::ID("id7_1"), 1));
                Receive(Message::CreateResponse(Message::ID("id7_1"), 2));
              }),
              ElementsAre("0.000 app → worker id7_1 count(null)",
                          "0.000 worker → app id7_1 count 0.0 ms 1", "0.000 worker → app id7_1 2"));
}

TEST_F(MessageLog, TellsANotificationThatComesInAnObject) {
  EXPECT_THAT(LinesOf([] { ReceiveWrapped(Message::CreateNotification("progress", kParams)); }),
              ElementsAre("0.000 worker → app progress({\"n\": 1})"));
}

TEST_F(MessageLog, TellsOfAnObjectWithoutATextThatItIsEmpty) {
  EXPECT_THAT(LinesOf([] { Q_EMIT Channel().messageReceived({}); }),
              ElementsAre("0.000 worker → app "));
}

TEST_F(MessageLog, ShowsTheHeadOfAnotherProtocolsText) {
  const std::string head = "\"hello\x1b" + std::string(113, 'x');
  EXPECT_THAT(LinesOf([&] { Send(head + "yz"); }),
              ElementsAre("0.000 app → worker \"hello\\x1b" + std::string(113, 'x')));
}

TEST_F(MessageLog, CountsItsTimeFromTheFirstLineOnAndInSeconds) {
  const std::string line = StderrOf([this] { Send("one"); });
  const double seconds = std::stod(line);
  EXPECT_GE(seconds, 0);
  EXPECT_LT(seconds, 3600);
}

TEST_F(MessageLog, TellsNothingOfWhatIsHeardAfterTheEnd) {
  table_.Release(client_);
  EXPECT_THAT(LinesOf([] {
                ReceiveWrapped(Message::CreateNotification("late", {}));
                Receive(Message::CreateNotification("late", {}));
              }),
              IsEmpty());
}

}  // namespace
}  // namespace tarv::test
