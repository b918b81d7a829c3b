// The lines on the socket: the same bytes as a JSON document's, whichever way they are made.
#include <RuntimeManager/TaskMessaging.h>
#include <sys/socket.h>
#include <unistd.h>

#include <QtCore/QJsonArray>
#include <QtCore/QJsonDocument>
#include <chrono>
#include <random>

#include "kit.h"

namespace kit {
namespace {

class Envelope : public PlatformTest {
 protected:
  void SetUp() override {
    PlatformTest::SetUp();
    const int listening = ListenOn(PathOf("peer"));
    messaging_ = std::make_unique<TaskMessaging>(PathOf("peer"));
    inbox_ = std::make_unique<Inbox>(messaging_.get());
    peer_ = ::accept(listening, nullptr, nullptr);
    ASSERT_GE(peer_, 0);
    ::close(listening);
  }
  void TearDown() override {
    ::close(peer_);
    inbox_.reset();
    messaging_.reset();
    PlatformTest::TearDown();
  }
  QByteArray Sent(const QJsonObject& object) {
    messaging_->sendMessage(object);
    return ReadLineFrom(peer_);
  }
  QJsonObject Received(const QByteArray& line) {
    EXPECT_EQ(
        ::send(peer_, (line + '\n').constData(), static_cast<std::size_t>(line.size()) + 1, 0),
        line.size() + 1);
    const std::size_t before = inbox_->messages.size();
    EXPECT_TRUE(inbox_->WaitFor(before + 1)) << line.toStdString();
    return inbox_->messages.size() > before ? inbox_->messages.back() : QJsonObject();
  }

  int peer_ = -1;
  std::unique_ptr<TaskMessaging> messaging_;
  std::unique_ptr<Inbox> inbox_;
};

QByteArray Compact(const QJsonObject& object) {
  return QJsonDocument(object).toJson(QJsonDocument::Compact);
}

TEST_F(Envelope, IsCompactJsonOnALine) {
  EXPECT_EQ(Sent(Data("SGVsbG8=")), R"({"data":"SGVsbG8="})");
  EXPECT_EQ(Sent(Data("")), R"({"data":""})");
  EXPECT_EQ(Sent(Data("a\"b\\c\n")), R"({"data":"a\"b\\c\n"})");
  EXPECT_EQ(Sent({}), "{}");
  EXPECT_EQ(Sent({{"a", 1}, {"b", QJsonArray{true, QJsonValue::Null}}}),
            R"({"a":1,"b":[true,null]})");
}

TEST_F(Envelope, IsReadInAnyFormThatJsonAllows) {
  EXPECT_EQ(Received(R"({"data":"plain"})"), Data("plain"));
  EXPECT_EQ(Received(" { \"data\" : \"spaced\" } \r"), Data("spaced"));
  EXPECT_EQ(Received(R"({"data":"A\/\n"})"), Data("A/\n"));
  EXPECT_EQ(Received(R"({"data":"x","more":"y"})"), (QJsonObject{{"data", "x"}, {"more", "y"}}));
  EXPECT_EQ(Received(R"({"data":5})"), (QJsonObject{{"data", 5}}));
}

QString RandomText(std::mt19937& random) {
  static const QString kSpecial = QString::fromUtf8("\"\\/\n\t\r\b\f\x01\x1f\x7f éß漢😀");
  const int kind = static_cast<int>(random() % 3);
  QString text;
  for (int left = static_cast<int>(random() % 40); left > 0; --left) {
    const bool plain = kind == 0 || (kind == 1 && random() % 8 != 0);
    if (plain) {
      text += QChar(static_cast<ushort>(0x20 + random() % 0x60));
    } else if (random() % 20 == 0) {
      text += QChar(static_cast<ushort>(0xd800 + random() % 0x800));
    } else {
      text += kSpecial.at(static_cast<int>(random() % static_cast<unsigned>(kSpecial.size())));
    }
  }
  return text;
}

QJsonObject RandomObject(std::mt19937& random) {
  if (random() % 4 != 0) return Data(RandomText(random));
  QJsonObject object{{RandomText(random), RandomText(random)}};
  if (random() % 2 == 0) object.insert("data", static_cast<int>(random() % 1000));
  if (random() % 2 == 0) object.insert("list", QJsonArray{RandomText(random), true, 1.5});
  return object;
}

TEST_F(Envelope, HasTheBytesOfAJsonDocumentForAnyText) {
  const auto seed =
      static_cast<unsigned>(std::chrono::steady_clock::now().time_since_epoch().count());
  std::mt19937 random(seed);
  for (int round = 0; round < 2000; ++round) {
    const QJsonObject object = RandomObject(random);
    const QByteArray expected = Compact(object);
    ASSERT_EQ(Sent(object), expected) << "seed " << seed << " round " << round;
    ASSERT_EQ(Compact(Received(expected)), Compact(QJsonDocument::fromJson(expected).object()))
        << "seed " << seed << " round " << round << ": " << expected.toStdString();
  }
}

}  // namespace
}  // namespace kit
