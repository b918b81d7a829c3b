// The memory of large texts, which goes with the channel that it was kept for.

#include <RuntimeManager/TaskMessaging.h>
#include <gtest/gtest.h>
#include <quarn/internal/text_room.h>

#include "fake_platform.h"

namespace tarv::test {
namespace {

using quarn::TextRoom;

class KeptMemory : public FakePlatform {
 protected:
  // A channel over which a large text went out, whose memory is kept for the next.
  void SendALargeText() {
    client_ = root_.CreateRpcClient(manager_);
    RuntimeManager::Task::GetAll().clear();
    Start().complete_start({});
    const std::string text(TextRoom::kLarge, 'x');
    ASSERT_EQ(table_.SendMessage(client_, text.c_str()), QUARN_RESULT_SUCCESS);
    TextRoom::Get().Give(std::string(TextRoom::kLarge, 'y'));
  }

  void EndTheChannel() {
    table_.Release(client_);
    RunDeferredDeletes();
  }

  static bool IsKept() {
    std::string text = TextRoom::Get().Take();
    const bool is_kept = text.capacity() >= TextRoom::kLarge;
    TextRoom::Get().Give(std::move(text));
    return is_kept;
  }
};

TEST_F(KeptMemory, StaysWhileTheChannelDoes) {
  SendALargeText();
  QCoreApplication::processEvents();
  EXPECT_TRUE(IsKept());
  EndTheChannel();
}

TEST_F(KeptMemory, GoesWithAChannelThatNeverGotBackToItsEventLoop) {
  SendALargeText();
  EndTheChannel();
  EXPECT_FALSE(IsKept());
}

TEST_F(KeptMemory, GoesWithAChannelThatWaitsForItToBeIdle) {
  SendALargeText();
  QCoreApplication::processEvents();
  EndTheChannel();
  EXPECT_FALSE(IsKept());
}

TEST_F(KeptMemory, GoesWithEachChannelOfSeveral) {
  for (int i = 0; i < 3; ++i) {
    SendALargeText();
    EndTheChannel();
    EXPECT_FALSE(IsKept()) << i;
  }
}

}  // namespace
}  // namespace tarv::test
