// Large texts, which are handed out where they lie, on a platform that has the shortcut for texts.

#include <RuntimeManager/TaskMessaging.h>
#include <gmock/gmock.h>

#include <new>
#include <set>

#include "../failing_allocation.h"
#include "fake_platform.h"
#include "support/capture.h"

namespace tarv::test {
namespace {

using testing::ElementsAre;

struct HandedOut {
  const char* text = nullptr;
  std::size_t chunk = 0;
};

// A server that keeps the last text locked.
class LargeShortcut : public FakePlatform {
 protected:
  LargeShortcut() {
    TARVRpcServerSlots slots{};
    slots.size = sizeof(slots);
    slots.OnMessage = [](void* user_data, const char* text, std::size_t chunk) {
      *static_cast<HandedOut*>(user_data) = {text, chunk};
    };
    slots.user_data = &last_;
    server_table_.Run(server_, &slots);
  }

  void Receive(int size) {
    QByteArray text(size, 'x');
    Q_EMIT Channel().dataReceived(text);
  }

  // Whether the text is received when memory runs out after so many allocations.
  bool ReceiveWithSpareMemory(int size, int allocations) {
    QByteArray text(size, 'x');
    const ExhaustedMemory exhausted(allocations);
    try {
      Q_EMIT Channel().dataReceived(text);
    } catch (const std::bad_alloc&) {
      return false;
    }
    return true;
  }

  // Whether there is no chunk of this id; from now on there is none.
  bool IsNoChunk(std::size_t id) {
    const std::string output = StdoutOf([&] { server_table_.UnlockResources(server_, id); });
    return output.find("Invalid chunk ID <" + std::to_string(id) + ">") != std::string::npos;
  }

  HandedOut last_;
  _TARVRpcServerRef* const server_ = root_.GetRpcServer(manager_);
};

TEST_F(LargeShortcut, HandsOutATextWhereItLiesUntilItIsUnlocked) {
  QByteArray text(64 << 10, 'x');
  const QByteArray platform = text;  // as the platform may keep it, to use its memory again
  Q_EMIT Channel().dataReceived(text);
  EXPECT_EQ(last_.text, platform.constData());
  EXPECT_FALSE(platform.isDetached());
  server_table_.UnlockResources(server_, last_.chunk);
  EXPECT_TRUE(platform.isDetached());
}

TEST_F(LargeShortcut, KeepsSeveralTextsApart) {
  QByteArray first(64 << 10, 'x');
  QByteArray second(64 << 10, 'y');
  const QByteArray platform = first;
  Q_EMIT Channel().dataReceived(first);
  const HandedOut kept = last_;
  Q_EMIT Channel().dataReceived(second);
  server_table_.UnlockResources(server_, last_.chunk);
  EXPECT_FALSE(platform.isDetached());
  EXPECT_EQ(std::string(kept.text), std::string(64 << 10, 'x'));
  server_table_.UnlockResources(server_, kept.chunk);
  EXPECT_TRUE(platform.isDetached());
}

// Raw data may lack its end, and go at any time.
TEST_F(LargeShortcut, CopiesATextOfRawData) {
  std::string memory((64 << 10) + 1, 'x');
  QByteArray text = QByteArray::fromRawData(memory.data(), 64 << 10);
  Q_EMIT Channel().dataReceived(text);
  EXPECT_NE(last_.text, memory.data());
  memory.assign(memory.size(), 'y');
  EXPECT_EQ(std::string_view(last_.text).size(), std::size_t{64} << 10);
  EXPECT_EQ(last_.text[0], 'x');
  server_table_.UnlockResources(server_, last_.chunk);
}

// A caller may send from where a text lay that was handed to it.
TEST_F(LargeShortcut, SendsEachTextUpToItsOwnEnd) {
  QByteArray text(64 << 10, 'x');
  QByteArray platform = text;
  Q_EMIT Channel().dataReceived(text);
  server_table_.UnlockResources(server_, last_.chunk);
  platform[5] = '\0';
  server_table_.SendMessage(server_, platform.constData());
  EXPECT_THAT(Channel().sent_texts, ElementsAre("xxxxx"));
}

// What a text leaves behind would show as memory that the texts after it take.
TEST_F(LargeShortcut, TakesNoMemoryForTheTextsAfterTheFirst) {
  QByteArray first(64 << 10, 'x');
  Q_EMIT Channel().dataReceived(first);
  server_table_.UnlockResources(server_, last_.chunk);
  for (int i = 0; i < 100; ++i) {
    QByteArray text(64 << 10, 'y');
    const ExhaustedMemory exhausted;
    ASSERT_NO_THROW(Q_EMIT Channel().dataReceived(text));
    EXPECT_EQ(last_.text[0], 'y');
    server_table_.UnlockResources(server_, last_.chunk);
  }
}

// The ids of the chunks that were made meanwhile and not handed out are those of none.
TEST_F(LargeShortcut, LeavesNoChunkOfATextForWhichMemoryRunsOut) {
  for (const int size : {100, 64 << 10}) {
    Receive(size);
    std::size_t id = last_.chunk;
    std::set<std::size_t> handed_out{id};
    for (int spare = 0; spare < 8; ++spare) {
      const bool is_received = ReceiveWithSpareMemory(size, spare);
      EXPECT_TRUE(is_received || spare < 7);
      handed_out.insert(last_.chunk);
    }
    Receive(size);
    for (; id < last_.chunk; ++id) {
      EXPECT_EQ(handed_out.count(id) == 0, IsNoChunk(id)) << id;
    }
  }
}

}  // namespace
}  // namespace tarv::test
