// Decoding where memory runs out, and how much a text takes: a program of its own, because it replaces
// operator new.
#include <cw/encodable_value.h>
#include <gtest/gtest.h>
#include <quarn/internal/text_room.h>
#include <vorpc/internal/outgoing_text.h>
#include <vorpc/message.h>

#include <cstddef>
#include <limits>
#include <memory>
#include <string>

#include "support/memory_usage.h"

namespace vorpc {
namespace {

using tarv::test::GetMemoryUsage;

// One byte in the text's bytes, many in memory.
std::string TextWithNulls(std::size_t count) {
  return Message::CreateNotification("m", cw::EncodableList(count)).ToBase64();
}

void ExpectNoMessage(const std::string& text) {
  GetMemoryUsage().limit = 2 * text.size();  // enough for the bytes, not for the list
  const Message message = Message::FromBase64(text);
  GetMemoryUsage().limit = std::numeric_limits<std::size_t>::max();
  EXPECT_EQ(message, Message::CreateError(Message::kParseError, "Emply or invalid RPC message"));
  EXPECT_EQ(Message::FromBase64(text).GetType(), Message::Type::Notification);
}

TEST(MessageText, IsEmplyOrInvalidWhenMemoryRunsOutForASmallOne) {
  ExpectNoMessage(TextWithNulls(1000));
}

TEST(MessageText, IsEmplyOrInvalidWhenMemoryRunsOutForAMediumOne) {
  ExpectNoMessage(TextWithNulls(20000));
}

TEST(MessageText, IsEmplyOrInvalidWhenMemoryRunsOutForALargeOne) {
  ExpectNoMessage(TextWithNulls(100000));
}

// Made of many small pieces.
Message MakeLargeMessage() {
  const cw::EncodableValue item(std::string(20, 'x'));
  return Message::CreateNotification("m", cw::EncodableList(20000, item));
}

// The most memory that `action` takes at a time beside what it leaves behind.
template <class Action>
std::size_t ExtraMemoryOf(Action&& action) {
  GetMemoryUsage().peak = GetMemoryUsage().held;
  const auto result = action();
  return GetMemoryUsage().peak - GetMemoryUsage().held;
}

TEST(MessageText, IsMadeForSendingInItsOwnMemoryAlone) {
  const Message message = MakeLargeMessage();
  EXPECT_LT(ExtraMemoryOf([&] { return std::make_unique<OutgoingText>(message); }),
            message.ToBase64().size() / 4);
}

TEST(MessageText, IsReadWithoutASecondLargeBlockForItsBytes) {
  const std::string text = MakeLargeMessage().ToBase64();
  EXPECT_LT(ExtraMemoryOf([&] { return Message::FromBase64(text); }), text.size() / 4);
}

TEST(MessageText, LeavesItsMemoryToTheNextOneThatIsSent) {
  const Message message = MakeLargeMessage();
  { const OutgoingText first(message); }
  const std::size_t held = GetMemoryUsage().held;
  {
    const OutgoingText next(message);
    EXPECT_EQ(next.Get(), message.ToBase64());
    EXPECT_LT(GetMemoryUsage().held, held + next.Get().size() / 4);
  }
  quarn::TextRoom::Get().GiveBack();
  EXPECT_LT(GetMemoryUsage().held + message.ToBase64().size() / 2, held);
}

}  // namespace
}  // namespace vorpc
