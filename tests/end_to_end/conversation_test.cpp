// What travels between an application's plug-in and a task's plug-in.

#include <gmock/gmock.h>
#include <vorpc/qt/utils.h>

#include <QJsonDocument>
#include <QJsonObject>
#include <cstdint>
#include <map>
#include <memory>
#include <vector>

#include "application.h"

namespace tarv::test {
namespace {

using cw::EncodableList;
using cw::EncodableMap;
using cw::EncodableValue;
using testing::SizeIs;
using Bytes = std::vector<std::uint8_t>;

class Conversation : public EndToEndTest {};

TEST_F(Conversation, BringsEveryKindOfValueThereAndBack) {
  const auto connection = StartConnected();
  const EncodableValue value = EncodableList{
      EncodableValue(),
      true,
      std::int32_t{-7},
      std::int64_t{1} << 60,
      0.1,
      "Grüße 🚀 \"quoted\" \\ \n",
      std::string("a\0b", 3),
      Bytes{0, 1, 127, 128, 255},
      std::vector<std::int32_t>{1, -2},
      std::vector<std::int64_t>{INT64_MIN, INT64_MAX},
      std::vector<double>{1.5, -0.25},
      std::vector<float>{2.5F},
      EncodableMap{{"list", EncodableList{1, "two"}}, {3, "a number for a key"}},
      EncodableList(),
      EncodableMap(),
  };
  EXPECT_EQ(connection->Ask("echo", value), value);
  EXPECT_EQ(connection->Ask("echo"), EncodableValue());
}

TEST_F(Conversation, BringsEmptyTypedListsAndWhatIsBehindThem) {
  const auto connection = StartConnected();
  const EncodableValue tagged = EncodableMap{{"tags", std::vector<std::int32_t>()},
                                             {"user", "ann"},
                                             {"z", std::vector<double>()},
                                             {"zz", EncodableList{std::vector<float>(), 1}}};
  EXPECT_EQ(connection->Ask("echo", tagged), tagged);
  const Response response = connection->Call("fail", std::vector<std::int64_t>());
  ASSERT_TRUE(response.IsError());
  EXPECT_EQ(response.GetError()->data, EncodableValue(std::vector<std::int64_t>()));
  EXPECT_EQ(connection->Call("fail", tagged).GetError()->data, tagged);
}

// As an application that speaks JSON has it: an array of nothing is a list of no integers.
TEST_F(Conversation, BringsAJsonObjectWithAnEmptyArrayWhole) {
  const auto connection = StartConnected();
  const QJsonObject json = QJsonDocument::fromJson(R"({"tags":[],"user":"ann"})").object();
  EncodableValue there;
  ASSERT_TRUE(vorpc::qt::JsonToEncodable(json, there));
  QJsonValue back;
  ASSERT_TRUE(vorpc::qt::EncodableToJson(connection->Ask("echo", there), back));
  EXPECT_EQ(back.toObject(), json);
}

TEST_F(Conversation, AnswersAnUnknownMethodWithItsName) {
  const auto connection = StartConnected();
  const Response response = connection->Call("ping");
  ASSERT_TRUE(response.IsError());
  EXPECT_EQ(*response.GetError(), vorpc::Message::Error(-32601, "Unknown method 'ping()'"));
  EXPECT_EQ(connection->Ask("echo", 1), EncodableValue(1)) << "the conversation goes on";
}

TEST_F(Conversation, BringsErrorsWithTheirData) {
  const auto connection = StartConnected();
  const EncodableValue data = EncodableMap{{"path", "/there"}, {"bytes", Bytes{1, 2, 3}}};
  const Response response = connection->Call("fail", data);
  ASSERT_TRUE(response.IsError());
  EXPECT_EQ(*response.GetError(), vorpc::Message::Error(17, "the file is not there", data));
  const Response bare = connection->Call("fail");
  ASSERT_TRUE(bare.IsError());
  EXPECT_TRUE(bare.GetError()->data.IsNull());
}

TEST_F(Conversation, KeepsNotificationsInOrderBothWays) {
  constexpr int kCount = 2000;
  const auto connection = StartConnected();
  connection->Hear("said");
  EncodableList expected;
  for (int i = 0; i < kCount; ++i) {
    expected.emplace_back(i);
    connection->client->SendNotify("say", i);
  }
  EXPECT_EQ(connection->Ask("heard"), EncodableValue(expected));
  // The task said each before it answered.
  ASSERT_THAT(connection->record->notifications, SizeIs(kCount));
  for (int i = 0; i < kCount; ++i) {
    EXPECT_EQ(connection->record->notifications[static_cast<std::size_t>(i)].params,
              EncodableValue(i));
  }
}

TEST_F(Conversation, BringsWhatTheTaskSendsOfItsOwn) {
  constexpr int kCount = 500;
  const auto connection = StartConnected();
  connection->Hear("number");
  connection->client->SendNotify("count", kCount);
  ASSERT_TRUE(connection->WaitForNotifications(kCount));
  for (int i = 0; i < kCount; ++i) {
    EXPECT_EQ(connection->record->notifications[static_cast<std::size_t>(i)].params,
              EncodableValue(i));
  }
}

TEST_F(Conversation, DropsANotificationThatNobodyHears) {
  const auto connection = StartConnected();
  connection->client->SendNotify("nobody listens", 1);
  EXPECT_EQ(connection->Ask("echo", 2), EncodableValue(2));
}

// Keeps a number of requests in flight until all have been made, from inside their callbacks.
class Pump {
 public:
  Pump(vorpc::IClient* client, int total) : client_(client), total_(total) {}

  void SendNext() {
    if (sent_ == total_) {
      return;
    }
    const int number = sent_++;
    client_->SendRequest("echo", number, [this, number](const Response& response) {
      answers_[number] += response.HasResult() && *response.GetResult() == EncodableValue(number);
      ++answered_;
      SendNext();
    });
  }

  int CountAnswered() const { return answered_; }
  const std::map<int, int>& GetAnswers() const { return answers_; }

 private:
  vorpc::IClient* const client_;
  const int total_;
  int sent_ = 0;
  int answered_ = 0;
  std::map<int, int> answers_;
};

TEST_F(Conversation, AnswersTenThousandRequestsWith64InFlightEachOnce) {
  constexpr int kRequests = 10000;
  constexpr int kInFlight = 64;
  const auto connection = StartConnected();
  Pump pump(connection->client.get(), kRequests);
  for (int i = 0; i < kInFlight; ++i) {
    pump.SendNext();
  }
  ASSERT_TRUE(WaitUntil([&pump] { return pump.CountAnswered() >= kRequests; }, 3 * kPatience));
  RunEvents(std::chrono::milliseconds(50));
  EXPECT_EQ(pump.CountAnswered(), kRequests);
  ASSERT_THAT(pump.GetAnswers(), SizeIs(kRequests));
  for (const auto& [number, answers] : pump.GetAnswers()) {
    EXPECT_EQ(answers, 1) << "request " << number;
  }
}

TEST_F(Conversation, Brings16MiBOfBytesThereAndBack) {
  Bytes bytes(16U << 20);
  for (std::size_t i = 0; i < bytes.size(); ++i) {
    bytes[i] = static_cast<std::uint8_t>(i * 2654435761U >> 13);
  }
  const auto connection = StartConnected();
  const EncodableValue answer = connection->Ask("echo", bytes);
  const auto* const back = std::get_if<Bytes>(&answer);
  ASSERT_NE(back, nullptr);
  EXPECT_TRUE(*back == bytes);
}

TEST_F(Conversation, WithSeveralTasksOfOneNameGoesToEachItsOwn) {
  const auto first = StartConnected();
  const auto second = StartConnected();
  EXPECT_NE(first->Ask("process"), second->Ask("process"));
  first->client->SendNotify("say", "to the first");
  EXPECT_EQ(first->Ask("heard"), EncodableValue(EncodableList{"to the first"}));
  EXPECT_EQ(second->Ask("heard"), EncodableValue(EncodableList{}));
}

}  // namespace
}  // namespace tarv::test
