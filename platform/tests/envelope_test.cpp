// The lines on the socket: the same bytes as a JSON document's, whichever way they are made.
#include <RuntimeManager/TaskMessaging.h>
#include <sys/socket.h>
#include <unistd.h>

#include <QtCore/QJsonArray>
#include <QtCore/QJsonDocument>
#include <chrono>
#include <random>
#include <thread>

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
  QByteArray SentData(const QByteArray& text) {
    messaging_->sendData(text);
    return ReadLineFrom(peer_);
  }
  void SendFromPeer(const QByteArray& bytes) {
    EXPECT_EQ(::send(peer_, bytes.constData(), static_cast<std::size_t>(bytes.size()), 0),
              bytes.size());
  }
  // From a thread beside the one that reads.
  void SendLarge(const QByteArray& bytes) const {
    for (int at = 0; at < bytes.size();) {
      const ssize_t size =
          ::send(peer_, bytes.constData() + at, static_cast<std::size_t>(bytes.size() - at), 0);
      if (size < 0) {
        return;
      }
      at += static_cast<int>(size);
    }
  }
  QJsonObject Received(const QByteArray& line) {
    SendFromPeer(line + '\n');
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
  if (random() % 4 != 0) {
    return Data(RandomText(random));
  }
  QJsonObject object{{RandomText(random), RandomText(random)}};
  if (random() % 2 == 0) {
    object.insert("data", static_cast<int>(random() % 1000));
  }
  if (random() % 2 == 0) {
    object.insert("list", QJsonArray{RandomText(random), true, 1.5});
  }
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

TEST_F(Envelope, OfATextHasTheBytesOfItsJsonDocument) {
  EXPECT_EQ(SentData("SGVsbG8="), R"({"data":"SGVsbG8="})");
  EXPECT_EQ(SentData(""), R"({"data":""})");
  const auto seed =
      static_cast<unsigned>(std::chrono::steady_clock::now().time_since_epoch().count());
  std::mt19937 random(seed);
  for (int round = 0; round < 2000; ++round) {
    const QByteArray text = RandomText(random).toUtf8();
    ASSERT_EQ(SentData(text), Compact(Data(QString::fromUtf8(text))))
        << "seed " << seed << " round " << round;
  }
}

// Both ways by which a message can come, in one order.
struct TextInbox {
  explicit TextInbox(TaskMessaging* messaging) {
    QObject::connect(messaging, &TaskMessaging::dataReceived, &context,
                     [this](const QByteArray& text) {
                       texts.push_back(text);
                       messages.push_back(Data(QString::fromUtf8(text)));
                     });
    QObject::connect(messaging, &TaskMessaging::messageReceived, &context,
                     [this](const QJsonObject& message) { messages.push_back(message); });
  }
  bool WaitFor(std::size_t count) {
    return RunUntil([this, count] { return messages.size() >= count; });
  }
  std::vector<QByteArray> texts;
  std::vector<QJsonObject> messages;
  QObject context;  // ends the connections with the object
};

TEST_F(Envelope, OfATextComesAsATextWhereOneIsHeard) {
  {
    TextInbox texts(messaging_.get());
    SendFromPeer(R"({"data":"plain"})"
                 "\n"
                 R"({"n":1})"
                 "\n"
                 R"({"data":""})"
                 "\n");
    ASSERT_TRUE(texts.WaitFor(3));
    EXPECT_EQ(texts.texts, (std::vector<QByteArray>{"plain", ""}));
    EXPECT_EQ(texts.messages, (std::vector<QJsonObject>{Data("plain"), {{"n", 1}}, Data("")}));
    EXPECT_EQ(inbox_->messages, (std::vector<QJsonObject>{{{"n", 1}}})) << "nothing comes twice";
    messaging_->disconnect(SIGNAL(dataReceived(QByteArray&)));
  }
  EXPECT_EQ(Received(R"({"data":"plain"})"), Data("plain")) << "nobody hears texts any more";
}

TEST_F(Envelope, IsTheSameWhereverTheStreamIsCut) {
  const QList<QByteArray> lines = {
      R"({"data":"SGVsbG8="})",   R"({"data":""})",     R"({"data":"a\"b\\c"})",
      R"({"data":"é"})",          R"({"data":5})",      R"( {"data":"s"} )",
      R"({"data":"x","more":1})", R"({"data":")",       R"({"data")",
      R"({"Data":"plain"})",      R"({"data":"x"}x)",   R"("})",
      R"({"data":"x"y"})",        R"({"data":"tail"} )"};
  QByteArray stream;
  std::vector<QJsonObject> expected;
  for (const QByteArray& line : lines) {
    stream += line + '\n';
    const QJsonDocument document = QJsonDocument::fromJson(line);
    if (document.isObject()) {
      expected.push_back(document.object());
    }
  }
  const WarningCatcher warnings;
  TextInbox texts(messaging_.get());
  for (int cut = 0; cut <= stream.size(); ++cut) {
    texts.messages.clear();
    if (cut > 0) {
      SendFromPeer(stream.left(cut));
    }
    RunFor(1);
    if (cut < stream.size()) {
      SendFromPeer(stream.mid(cut));
    }
    ASSERT_TRUE(texts.WaitFor(expected.size())) << "cut at " << cut;
    ASSERT_EQ(texts.messages, expected) << "cut at " << cut;
  }
}

QByteArray LongText(int size, char first) {
  QByteArray text(size, Qt::Uninitialized);
  for (int i = 0; i < size; ++i) {
    text[i] = static_cast<char>('0' + (first + i) % 64 % 10);
  }
  return text;
}

TEST_F(Envelope, OfALargeTextStaysWholeWhatFollowsIt) {
  TextInbox texts(messaging_.get());
  std::vector<QByteArray> sent;
  for (int i = 0; i < 6; ++i) {
    sent.push_back(LongText(i % 2 == 0 ? (3 << 20) + i : 10 + i, static_cast<char>(i)));
  }
  std::thread writer([this, &sent] {
    for (const QByteArray& text : sent) {
      SendLarge(R"({"data":")" + text + "\"}\n");
    }
  });
  EXPECT_TRUE(texts.WaitFor(sent.size()));
  writer.join();
  EXPECT_TRUE(texts.texts == sent);
}

// What begins as a text of plain characters turns out to be something else after mebibytes.
TEST_F(Envelope, ThatIsLargeMayTurnOutToBeNoPlainTextAtItsVeryEnd) {
  const QByteArray head = R"({"data":")" + LongText(3 << 20, 5);
  const std::vector<QByteArray> lines = {
      head + R"(\n"})", head + "é" + LongText(100, 7) + R"("})",         head + R"(","more":1})",
      head + R"(" })",  "{\"Data\":\"" + LongText(3 << 20, 1) + R"("})", R"({"data":"small"})"};
  const WarningCatcher warnings;
  TextInbox texts(messaging_.get());
  std::thread writer([this, &lines, &head] {
    for (const QByteArray& line : lines) {
      SendLarge(head + R"("x})" + '\n' + line + '\n');
    }
  });
  EXPECT_TRUE(texts.WaitFor(lines.size()));
  writer.join();
  for (std::size_t i = 0; i < lines.size(); ++i) {
    EXPECT_TRUE(texts.messages[i] == QJsonDocument::fromJson(lines[i]).object()) << i;
  }
  EXPECT_EQ(warnings.Count("is not a JSON object; it begins with: {\"data\":\"5"),
            static_cast<int>(lines.size()));
}

TEST_F(Envelope, KeepsItsPlaceAmongOthersThatWaitForTheSocket) {
  QByteArray expected;
  for (int i = 0; i < 3000; ++i) {
    const QByteArray text = LongText(i % 7 == 0 ? 40000 : i % 300, static_cast<char>(i % 100));
    const QJsonObject object = Data(QString::fromLatin1(text));
    i % 3 == 0 ? messaging_->sendMessage(object) : messaging_->sendData(text);
    expected += Compact(object) + '\n';
    if (i % 500 == 0) {
      RunFor(1);
    }
  }
  QByteArray arrived;
  EXPECT_TRUE(RunUntilStuck(
      [this, &arrived, &expected] {
        ReadMore(peer_, &arrived);
        return arrived.size() >= expected.size();
      },
      [&arrived] { return arrived.size(); }));
  EXPECT_TRUE(arrived == expected);
}

}  // namespace
}  // namespace kit
