// Texts as a receiver gets them: in memory that the connection uses again.
#include <RuntimeManager/TaskMessaging.h>
#include <gmock/gmock.h>
#include <sys/socket.h>
#include <unistd.h>

#include <QtCore/QByteArray>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "kit.h"

namespace kit {
namespace {

constexpr int kLarge = 1 << 20;

class LargeTexts : public ServerEnd {
 protected:
  void SetUp() override {
    ServerEnd::SetUp();
    messaging_ = std::make_unique<TaskMessaging>(listening_);
    QObject::connect(messaging_.get(), &TaskMessaging::dataReceived,
                     [this](QByteArray& text) { texts_.push_back(std::move(text)); });
    QObject::connect(messaging_.get(), &TaskMessaging::messageReceived,
                     [this](const QJsonObject& object) { objects_.push_back(object); });
    peer_ = Connect();
  }
  void TearDown() override {
    ::close(peer_);
    messaging_.reset();
    ServerEnd::TearDown();
  }

  // Writes lines while the event loop reads, until so many texts and objects have come.
  void Exchange(const QByteArray& lines, std::size_t count) {
    std::thread writer([this, &lines] { SendLine(peer_, lines); });
    EXPECT_TRUE(RunUntil([this, count] { return texts_.size() + objects_.size() >= count; }));
    writer.join();
  }

  static QByteArray LineOf(const QByteArray& text) { return R"({"data":")" + text + R"("})"; }

  std::unique_ptr<TaskMessaging> messaging_;
  std::vector<QByteArray> texts_;
  std::vector<QJsonObject> objects_;
  int peer_ = -1;
};

TEST_F(LargeTexts, StayAsTheyAreWhileTheyAreHeld) {
  Exchange(LineOf(QByteArray(kLarge, 'a')), 1);
  Exchange(LineOf(QByteArray(kLarge, 'b')), 2);
  Exchange(LineOf(QByteArray(kLarge / 8, 'c')), 3);
  EXPECT_TRUE(texts_.at(0) == QByteArray(kLarge, 'a'));
  EXPECT_TRUE(texts_.at(1) == QByteArray(kLarge, 'b'));
  EXPECT_TRUE(texts_.at(2) == QByteArray(kLarge / 8, 'c'));
}

TEST_F(LargeTexts, ComeInTheMemoryOfThoseThatAreDoneWith) {
  for (std::size_t i = 1; i <= 3; ++i) {
    const char* const before = texts_.empty() ? nullptr : texts_.back().constData();
    texts_.clear();
    Exchange(LineOf(QByteArray(kLarge, static_cast<char>('a' + i))), 1);
    EXPECT_TRUE(texts_.at(0) == QByteArray(kLarge, static_cast<char>('a' + i)));
    // The first has grown to its size; the second's room was made to measure.
    if (i == 3) {
      EXPECT_EQ(texts_.at(0).constData(), before);
    }
  }
}

TEST_F(LargeTexts, OfEverySizeAroundThatOfAReadLeaveTheLinesBehindThemWhole) {
  constexpr int kRead = 256 << 10;
  for (const int size : {kRead - 15, kRead - 9, kRead - 8, kRead, kRead + 1, 2 * kRead - 20,
                         2 * kRead, kLarge, 3 * kLarge}) {
    texts_.clear();
    const QByteArray large(size, 'l');
    Exchange(LineOf("first") + '\n' + LineOf(large) + '\n' + LineOf("small") + '\n' +
                 LineOf(large) + '\n' + LineOf("last"),
             5);
    ASSERT_EQ(texts_.size(), 5U);
    EXPECT_TRUE(texts_[1] == large && texts_[3] == large) << size;
    EXPECT_EQ(texts_[0] + texts_[2] + texts_[4], "firstsmalllast") << size;
  }
}

// The escape shows only behind the first reads.
TEST_F(LargeTexts, ThatTurnOutToBeNoPlainOnesComeAsObjects) {
  const QByteArray half(kLarge, 'x');
  Exchange(LineOf(half + "\\n" + half) + '\n' + LineOf("small"), 2);
  ASSERT_EQ(objects_.size(), 1U);
  EXPECT_EQ(objects_[0]["data"].toString(), QString(half + "\n" + half));
  EXPECT_EQ(texts_.at(0), "small");
}

class BoundedLargeTexts : public LargeTexts {
  const ScopedVariable bound_{"RUNTIME_MANAGER_MAX_MESSAGE", QByteArray::number(kLarge)};
};

TEST_F(BoundedLargeTexts, EndTheConnectionWhenTheyAreLonger) {
  const int room = kLarge - LineOf("").size();
  Inbox inbox(messaging_.get());
  Exchange(LineOf(QByteArray(room, 'x')), 1);
  EXPECT_EQ(texts_.at(0).size(), room);
  std::thread writer([this, room] {
    const QByteArray line = LineOf(QByteArray(room + 1, 'x')) + '\n';
    static_cast<void>(
        ::send(peer_, line.constData(), static_cast<std::size_t>(line.size()), MSG_NOSIGNAL));
  });
  EXPECT_EQ(inbox.disconnects.Wait().code(), Error::kMessageTooLong);
  writer.join();
}

class SmallTexts : public ServerEnd {
 protected:
  void SetUp() override {
    ServerEnd::SetUp();
    messaging_ = std::make_unique<TaskMessaging>(listening_);
    peer_ = Connect();
  }
  void TearDown() override {
    ::close(peer_);
    messaging_.reset();
    ServerEnd::TearDown();
  }

  template <class Handler>
  void Hear(Handler handler) {
    QObject::connect(messaging_.get(), &TaskMessaging::dataReceived, std::move(handler));
  }
  void Send(const QByteArray& text) const { SendLine(peer_, R"({"data":")" + text + R"("})"); }

  std::unique_ptr<TaskMessaging> messaging_;
  int peer_ = -1;
};

TEST_F(SmallTexts, StayAsTheyAreWhileTheyAreHeld) {
  std::vector<QByteArray> texts;
  Hear([&texts](const QByteArray& text) { texts.push_back(text); });
  for (const char* text : {"first", "the second, longer", "", "4th"}) {
    Send(text);
  }
  Send(QByteArray(2000, 'x'));
  ASSERT_TRUE(RunUntil([&texts] { return texts.size() == 5; }));
  EXPECT_THAT(
      texts, testing::ElementsAre("first", "the second, longer", "", "4th", QByteArray(2000, 'x')));
}

TEST_F(SmallTexts, ComeInTheMemoryOfThoseThatAreDoneWith) {
  std::vector<const char*> places;
  std::vector<QByteArray> texts;
  Hear([&](const QByteArray& text) {
    places.push_back(text.constData());
    texts.emplace_back(text.constData(), text.size());
  });
  Send("first, longer");
  Send("second");
  Send("third one");
  ASSERT_TRUE(RunUntil([&places] { return places.size() == 3; }));
  EXPECT_THAT(places, testing::Each(places.at(0)));
  EXPECT_THAT(texts, testing::ElementsAre("first, longer", "second", "third one"));
}

TEST_F(SmallTexts, StayAsTheyAreWhileAHandlerRunsAnEventLoop) {
  std::vector<QByteArray> texts;
  Hear([&texts](const QByteArray& text) {
    const bool is_first = texts.empty();
    texts.emplace_back(text.constData(), text.size());
    if (is_first) {
      EXPECT_TRUE(RunUntil([&texts] { return texts.size() == 2; }));
      EXPECT_EQ(text, "first");
    }
  });
  Send("first");
  Send("second");
  ASSERT_TRUE(RunUntil([&texts] { return texts.size() == 2; }));
  EXPECT_THAT(texts, testing::ElementsAre("first", "second"));
}

}  // namespace
}  // namespace kit
