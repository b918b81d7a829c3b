// Decoding where memory runs out: a program of its own, because it replaces operator new.
#include <cw/encodable_value.h>
#include <gtest/gtest.h>
#include <vorpc/message.h>

#include <cstddef>
#include <limits>
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

}  // namespace
}  // namespace vorpc
