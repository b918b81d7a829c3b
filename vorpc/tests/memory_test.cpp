// Decoding where memory runs out, and how much a text takes: a program of its own, because it replaces
// operator new.
#include <cw/encodable_value.h>
#include <gtest/gtest.h>
#include <quarn/internal/text_room.h>
#include <vorpc/client.h>
#include <vorpc/internal/outgoing_text.h>
#include <vorpc/message.h>

#include <array>
#include <cstddef>
#include <limits>
#include <memory>
#include <new>
#include <optional>
#include <string>
#include <utility>

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

TEST(MessageText, OfFewBytesLeavesTheKeptMemoryToALargeOne) {
  const Message large = MakeLargeMessage();
  { const OutgoingText first(large); }
  const std::size_t held = GetMemoryUsage().held;
  const Message small = Message::CreateNotification("m", {});
  const OutgoingText short_text(small);
  EXPECT_EQ(short_text.Get(), small.ToBase64());
  {
    const OutgoingText next(large);
    EXPECT_LT(GetMemoryUsage().held, held + next.Get().size() / 4);
  }
  quarn::TextRoom::Get().GiveBack();
}

// A connected client with requests that wait, and the order in which they end.
class ClientEnd : public testing::Test {
 protected:
  ClientEnd() {
    client_->Run();
    client_->SetStarted();
    client_->Receive(Message::CreateResponse(*connect_id_, {}));
    for (int number = 0; number < kRequests; ++number) {
      client_->SendRequest("m", {}, [this, number](const Message::Response& response) {
        order_[static_cast<std::size_t>(ended_++)] = number;
        short_texts_ += response.GetError()->message == "Out of memory" ? 1 : 0;
      });
    }
  }

  template <class End>
  static void WithoutMemory(const End& end) {
    GetMemoryUsage().limit = 0;
    end();
    GetMemoryUsage().limit = std::numeric_limits<std::size_t>::max();
  }

  static constexpr int kRequests = 3;
  std::optional<Message::ID> connect_id_;
  std::array<int, kRequests> order_{};
  int ended_ = 0;
  int short_texts_ = 0;
  std::shared_ptr<IOwnedClient> client_ = IOwnedClient::Create([this](Message&& message) {
    if (message.IsRequest("vorpc.connected")) {
      connect_id_ = message.GetRequest()->id;
    }
  });
};

TEST_F(ClientEnd, AnswersEachRequestInItsTurnWhenNoMemoryIsLeft) {
  WithoutMemory([this] { client_->Disconnect(Message::Error(1, "gone")); });
  EXPECT_EQ(ended_, kRequests);
  EXPECT_EQ(order_, (std::array<int, kRequests>{0, 1, 2}));
  EXPECT_EQ(short_texts_, 0);
}

TEST_F(ClientEnd, AnswersInShortWhenNoMemoryIsLeftForTheReason) {
  std::optional<Message::Error> reason(
      std::in_place, 1, "a reason that is too long to stand where the text itself stands");
  WithoutMemory([this, &reason] { client_->Disconnect(std::move(reason)); });
  EXPECT_EQ(ended_, kRequests);
  EXPECT_EQ(short_texts_, kRequests);
}

TEST_F(ClientEnd, IsHeardByAllInShortWhenNoMemoryIsLeftForTheReason) {
  int short_texts = 0;
  for (int i = 0; i < 2; ++i) {
    client_->OnDisconnected([&short_texts](const std::optional<Message::Error>& error) {
      short_texts += error == Message::Error(-32002, "Out of memory") ? 1 : 0;
    });
  }
  std::optional<Message::Error> reason(
      std::in_place, -32002, "a reason that is too long to stand where the text itself stands");
  WithoutMemory([this, &reason] { client_->Disconnect(std::move(reason)); });
  EXPECT_EQ(short_texts, 2);
}

TEST(ClientEndEarly, IsHeardInShortWhenNoMemoryIsLeftForTheReason) {
  const auto client = IOwnedClient::Create([](Message&& /*message*/) {});
  std::string heard;
  client->OnConnected(
      [&heard](const auto& error) { heard = error ? error->message : "connected"; });
  std::optional<Message::Error> reason(
      std::in_place, 1, "a reason that is too long to stand where the text itself stands");
  GetMemoryUsage().limit = 0;
  client->Disconnect(std::move(reason));
  GetMemoryUsage().limit = std::numeric_limits<std::size_t>::max();
  client->Run();
  client->SetStarted();
  EXPECT_EQ(heard, "Out of memory");
}

TEST_F(ClientEnd, IsLetGoWhenNoMemoryIsLeft) {
  WithoutMemory([this] { client_.reset(); });
  EXPECT_EQ(ended_, 0);
}

}  // namespace
}  // namespace vorpc
