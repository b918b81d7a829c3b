// Large texts, which are handed out where they lie, on a platform that has the shortcut for texts.

#include <RuntimeManager/TaskMessaging.h>
#include <gmock/gmock.h>

#include <new>
#include <set>

#include "../failing_allocation.h"
#include "fake_platform.h"
#include "received_texts.h"
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

// The channel does not outlive a want of memory, but what keeps its texts may.
class KeptTexts : public testing::TestWithParam<int> {
 protected:
  // Whether the text is kept when memory runs out after so many allocations; its chunk is the
  // caller's.
  bool KeepWithSpareMemory(int allocations) {
    QByteArray text(GetParam(), 'x');
    const ExhaustedMemory exhausted(allocations);
    try {
      chunks_.insert(texts_.Keep(text).chunk);
    } catch (const std::bad_alloc&) {
      return false;
    }
    return true;
  }

  std::uint64_t Keep() {
    QByteArray text(GetParam(), 'x');
    return *chunks_.insert(texts_.Keep(text).chunk).first;
  }

  // Whether there is no chunk of this id; from now on there is none.
  bool IsNoChunk(std::uint64_t id) {
    const std::string output = StdoutOf([&] { texts_.Remove(id); });
    return output.find("Invalid chunk ID <" + std::to_string(id) + ">") != std::string::npos;
  }

  tarv::details::ReceivedTexts texts_;
  std::set<std::uint64_t> chunks_;  // handed out
};

// The ids of the chunks that were made meanwhile and not handed out are those of none.
TEST_P(KeptTexts, LeaveNoChunkOfATextForWhichMemoryRunsOut) {
  std::uint64_t id = Keep();
  for (int spare = 0; spare < 8; ++spare) {
    const bool is_kept = KeepWithSpareMemory(spare);
    EXPECT_TRUE(is_kept || spare < 7);
  }
  for (const std::uint64_t last = Keep(); id <= last; ++id) {
    EXPECT_EQ(chunks_.count(id) == 0, IsNoChunk(id)) << id;
  }
}

INSTANTIATE_TEST_SUITE_P(SmallAndLarge, KeptTexts, testing::Values(100, 64 << 10));

}  // namespace
}  // namespace tarv::test
