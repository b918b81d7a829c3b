#include <cw/binary_messenger.h>
#include <gmock/gmock.h>

#include <array>

#include "support/capture.h"
#include "support/fake_embedder.h"
#include "support/log_line.h"

namespace {

using cw::BinaryMessenger;
using cw::test_support::FakeEmbedder;
using tarv::test::IsLogLine;
using tarv::test::StderrOf;
using tarv::test::StdoutOf;
using testing::Each;
using testing::ElementsAre;
using testing::IsEmpty;

const std::array<std::uint8_t, 2> kHi = {'h', 'i'};
_FlutterVeltraResponse* const kResponse = reinterpret_cast<_FlutterVeltraResponse*>(99);

constexpr const char* kDuplicate =
    "Error: Response can be set only once. Ignoring duplicate response.\n";

class BinaryMessengerTest : public testing::Test {
 protected:
  std::unique_ptr<BinaryMessenger> Make() {
    return BinaryMessenger::Create(embedder_.MakeContext(72));
  }

  // Whatever a test does, each entry is called for the context's engine.
  void TearDown() override { EXPECT_THAT(embedder_.engines, Each(FakeEmbedder::MakeEngine(4711))); }

  FakeEmbedder embedder_;
};

TEST_F(BinaryMessengerTest, LoadsATableOfFortyBytesAndNamesItsEngine) {
  const auto messenger = Make();
  ASSERT_TRUE(messenger);
  EXPECT_EQ(embedder_.requested_size, 40U);
  EXPECT_EQ(messenger->GetRef(), FakeEmbedder::MakeEngine(4711));
}

TEST_F(BinaryMessengerTest, IsEmptyForANullContext) {
  EXPECT_FALSE(BinaryMessenger::Create(nullptr));
}

TEST_F(BinaryMessengerTest, IsEmptyForContextsTooSmallForTheLoader) {
  for (const std::size_t size : {0U, 8U, 23U, 24U, 40U, 64U, 71U}) {
    EXPECT_FALSE(BinaryMessenger::Create(embedder_.MakeContext(size))) << size;
  }
  EXPECT_TRUE(BinaryMessenger::Create(embedder_.MakeContext(72)));
}

TEST_F(BinaryMessengerTest, IsEmptyWithoutAnEngine) {
  EXPECT_FALSE(BinaryMessenger::Create(embedder_.MakeContext(72, 0)));
}

TEST_F(BinaryMessengerTest, IsEmptyWithoutALoader) {
  auto* const context = embedder_.MakeContext(72);
  context->MessengerProcTableLoad = nullptr;
  EXPECT_FALSE(BinaryMessenger::Create(context));
}

TEST_F(BinaryMessengerTest, IsEmptyWhenLoadingFails) {
  embedder_.load_succeeds = false;
  EXPECT_FALSE(Make());
}

TEST_F(BinaryMessengerTest, SendsWithoutAReplyCallbackWhenNobodyWaits) {
  Make()->Send("channel", kHi.data(), kHi.size(), nullptr);
  EXPECT_THAT(embedder_.log, ElementsAre("send channel hi"));
}

TEST_F(BinaryMessengerTest, HandsTheReplyOnAndThenLetsGoOfTheReplyFunction) {
  std::string reply;
  auto alive = std::make_shared<int>(0);
  const std::weak_ptr<int> watch = alive;
  Make()->Send("channel", kHi.data(), kHi.size(),
               [&reply, alive = std::move(alive)](const std::uint8_t* data, std::size_t size) {
                 reply.assign(data, data + size);
               });
  EXPECT_THAT(embedder_.log, ElementsAre("send channel hi and reply"));
  EXPECT_FALSE(watch.expired());
  embedder_.reply(embedder_.reply_data, kHi.data(), kHi.size());
  EXPECT_EQ(reply, "hi");
  EXPECT_TRUE(watch.expired());
}

TEST_F(BinaryMessengerTest, DestroysTheReplyFunctionAtOnceWhenSendingFails) {
  embedder_.send_succeeds = false;
  bool replied = false;
  auto alive = std::make_shared<int>(0);
  const std::weak_ptr<int> watch = alive;
  Make()->Send(
      "channel", kHi.data(), kHi.size(),
      [&replied, alive = std::move(alive)](const std::uint8_t*, std::size_t) { replied = true; });
  EXPECT_TRUE(watch.expired());
  EXPECT_FALSE(replied);
}

TEST_F(BinaryMessengerTest, SendDoesNothingWithoutTheEntry) {
  const std::size_t sizes[] = {8, 15};
  for (const std::size_t size : sizes) {
    embedder_.table.size = size;
    EXPECT_EQ(StdoutOf([this] { Make()->Send("channel", kHi.data(), kHi.size(), nullptr); }), "");
  }
  embedder_.table.size = 40;
  embedder_.table.Send = nullptr;
  EXPECT_EQ(StdoutOf([this] { Make()->Send("channel", kHi.data(), kHi.size(), nullptr); }), "");
  EXPECT_THAT(embedder_.log, IsEmpty());
}

TEST_F(BinaryMessengerTest, SetMessageHandlerDoesNothingWithoutTheEntry) {
  embedder_.table.size = 23;
  Make()->SetMessageHandler("channel", [](const std::uint8_t*, std::size_t, const auto&) {});
  embedder_.table.size = 40;
  embedder_.table.SetMessageHandler = nullptr;
  Make()->SetMessageHandler("channel", [](const std::uint8_t*, std::size_t, const auto&) {});
  EXPECT_THAT(embedder_.log, IsEmpty());
}

TEST_F(BinaryMessengerTest, HandsMessagesToTheHandlerAndSendsItsReply) {
  const auto messenger = Make();
  std::string got;
  messenger->SetMessageHandler(
      "channel", [&got](const std::uint8_t* data, std::size_t size, const cw::BinaryReply& reply) {
        got.assign(data, data + size);
        reply(kHi.data(), kHi.size());
      });
  embedder_.Deliver("hello", kResponse);
  EXPECT_EQ(got, "hello");
  EXPECT_THAT(embedder_.log, ElementsAre("set channel", "response hi"));
}

TEST_F(BinaryMessengerTest, AnswersTheMessageThatTheReplyBelongsTo) {
  const auto messenger = Make();
  std::vector<cw::BinaryReply> replies;
  messenger->SetMessageHandler("channel",
                               [&replies](const std::uint8_t*, std::size_t, const auto& reply) {
                                 replies.push_back(reply);
                               });
  auto* const other = reinterpret_cast<_FlutterVeltraResponse*>(100);
  embedder_.Deliver("one", kResponse);
  embedder_.Deliver("two", other);
  replies[1](kHi.data(), kHi.size());
  replies[0](kHi.data(), kHi.size());
  EXPECT_THAT(embedder_.responses, ElementsAre(other, kResponse));
}

TEST_F(BinaryMessengerTest, AsksNothingForAChannelWhoseNameHasANulInside) {
  const auto messenger = Make();
  const std::string name("chan\0nel", 8);
  const auto line = IsLogLine("error",
                              "The channel 'chan\\x00nel' has a NUL inside, at which the embedder "
                              "would end it. Nothing was asked of the embedder; pass a name "
                              "without one.");
  EXPECT_THAT(StdoutOf([&] { messenger->Send(name, kHi.data(), kHi.size()); }), line);
  EXPECT_THAT(StdoutOf([&] {
                messenger->SetMessageHandler(name,
                                             [](const std::uint8_t*, std::size_t, const auto&) {});
              }),
              line);
  EXPECT_THAT(StdoutOf([&] { messenger->SetMessageHandler(name, nullptr); }), line);
  std::uint64_t id = 1;
  EXPECT_THAT(StdoutOf([&] { id = messenger->OnChannelUpdateSubscribe(name, [](bool) {}); }), line);
  EXPECT_EQ(id, 0U);
  EXPECT_THAT(StdoutOf([&] { messenger->OnChannelUpdateUnsubscribe(name, 1); }), line);
  EXPECT_THAT(embedder_.log, IsEmpty());
}

TEST_F(BinaryMessengerTest, ASecondReplySendsNothingAndPrintsTheDuplicateLineOnce) {
  const auto messenger = Make();
  messenger->SetMessageHandler("channel",
                               [](const std::uint8_t*, std::size_t, const cw::BinaryReply& reply) {
                                 reply(kHi.data(), kHi.size());
                                 reply(kHi.data(), kHi.size());
                               });
  EXPECT_EQ(StderrOf([this] { embedder_.Deliver("x", kResponse); }), kDuplicate);
  EXPECT_THAT(embedder_.log, ElementsAre("set channel", "response hi"));
}

TEST_F(BinaryMessengerTest, CopiesOfAReplyFunctionShareTheOneReply) {
  const auto messenger = Make();
  cw::BinaryReply kept;
  messenger->SetMessageHandler("channel", [&kept](const std::uint8_t*, std::size_t,
                                                  cw::BinaryReply reply) { kept = reply; });
  embedder_.Deliver("x", kResponse);
  const cw::BinaryReply copy = kept;
  kept(nullptr, 0);
  EXPECT_EQ(StderrOf([&copy] { copy(nullptr, 0); }), kDuplicate);
  EXPECT_THAT(embedder_.log, ElementsAre("set channel", "response "));
}

TEST_F(BinaryMessengerTest, AReplyToAMessageThatWantsNoneSendsNothing) {
  const auto messenger = Make();
  messenger->SetMessageHandler("channel",
                               [](const std::uint8_t*, std::size_t, const cw::BinaryReply& reply) {
                                 reply(kHi.data(), kHi.size());
                               });
  EXPECT_EQ(StderrOf([this] { embedder_.Deliver("x", nullptr); }), "");
  EXPECT_THAT(embedder_.log, ElementsAre("set channel"));
}

TEST_F(BinaryMessengerTest, RemovingAHandlerThatIsNotThereOnlyClearsItInTheEmbedder) {
  const auto messenger = Make();
  messenger->SetMessageHandler("channel", nullptr);
  EXPECT_THAT(embedder_.log, ElementsAre("clear channel"));
}

TEST_F(BinaryMessengerTest, ReplacesAndRemovesHandlers) {
  const auto messenger = Make();
  std::string got;
  auto alive = std::make_shared<int>(0);
  const std::weak_ptr<int> watch = alive;
  messenger->SetMessageHandler(
      "channel", [alive = std::move(alive)](const std::uint8_t*, std::size_t, const auto&) {
        FAIL() << "the replaced handler was called";
      });
  messenger->SetMessageHandler(
      "channel", [&got](const std::uint8_t*, std::size_t, const auto&) { got += "second"; });
  EXPECT_TRUE(watch.expired());
  embedder_.Deliver("x", kResponse);
  EXPECT_EQ(got, "second");
  messenger->SetMessageHandler("channel", nullptr);
  EXPECT_EQ(embedder_.handler, nullptr);
  EXPECT_THAT(embedder_.log, ElementsAre("set channel", "set channel", "clear channel"));
}

TEST_F(BinaryMessengerTest, AHandlerMayRemoveItself) {
  const auto messenger = Make();
  const std::string text = "still here";
  std::string got;
  messenger->SetMessageHandler("channel", [&messenger, &got, text](const std::uint8_t*, std::size_t,
                                                                   const cw::BinaryReply& reply) {
    messenger->SetMessageHandler("channel", nullptr);
    got = text;
    reply(nullptr, 0);
  });
  embedder_.Deliver("x", kResponse);
  EXPECT_EQ(got, "still here");
}

TEST_F(BinaryMessengerTest, AHandlerMayDestroyTheMessengerAndReplyAfterwards) {
  auto messenger = Make();
  messenger->SetMessageHandler(
      "channel", [&messenger](const std::uint8_t*, std::size_t, const cw::BinaryReply& reply) {
        messenger.reset();
        reply(kHi.data(), kHi.size());
      });
  embedder_.Deliver("x", kResponse);
  EXPECT_THAT(embedder_.log, ElementsAre("set channel", "clear channel", "response hi"));
}

TEST_F(BinaryMessengerTest, ClearsItsHandlersWhenItGoes) {
  Make()->SetMessageHandler("channel", [](const std::uint8_t*, std::size_t, const auto&) {});
  EXPECT_THAT(embedder_.log, ElementsAre("set channel", "clear channel"));
}

TEST_F(BinaryMessengerTest, SubscribesToChannelUpdatesThroughASlot) {
  const auto messenger = Make();
  std::vector<bool> updates;
  auto alive = std::make_shared<int>(0);
  const std::weak_ptr<int> watch = alive;
  EXPECT_EQ(messenger->OnChannelUpdateSubscribe("channel", [&updates, alive = std::move(alive)](
                                                               bool on) { updates.push_back(on); }),
            17U);
  embedder_.subscription->Invoke(true);
  embedder_.subscription->Invoke(false);
  EXPECT_THAT(updates, ElementsAre(true, false));
  messenger->OnChannelUpdateUnsubscribe("channel", 17);
  EXPECT_TRUE(watch.expired());
  EXPECT_THAT(embedder_.log, ElementsAre("subscribe channel", "unsubscribe channel 17"));
}

TEST_F(BinaryMessengerTest, SubscribingLogsThatATooSmallOrNullEntryIsNotProvided) {
  const auto expect_line = [this] {
    std::uint64_t id = 1;
    EXPECT_THAT(
        StdoutOf([this, &id] { id = Make()->OnChannelUpdateSubscribe("channel", [](bool) {}); }),
        IsLogLine("error", "Method 'OnChannelUpdateSubscribe' is not provided by the loaded API."));
    EXPECT_EQ(id, 0U);
  };
  for (const std::size_t size : {24U, 31U}) {
    embedder_.table.size = size;
    expect_line();
  }
  embedder_.table.size = 40;
  embedder_.table.OnChannelUpdateSubscribe = nullptr;
  expect_line();
}

TEST_F(BinaryMessengerTest, SubscribesWithATableOfThirtyTwoBytes) {
  embedder_.table.size = 32;
  EXPECT_EQ(Make()->OnChannelUpdateSubscribe("channel", [](bool) {}), 17U);
}

TEST_F(BinaryMessengerTest, UnsubscribingLogsThatATooSmallOrNullEntryIsNotProvided) {
  const auto expect_line = [this] {
    EXPECT_THAT(
        StdoutOf([this] { Make()->OnChannelUpdateUnsubscribe("channel", 1); }),
        IsLogLine("error",
                  "Method 'OnChannelUpdateUnsubscribe' is not provided by the loaded API."));
  };
  for (const std::size_t size : {32U, 39U}) {
    embedder_.table.size = size;
    expect_line();
  }
  embedder_.table.size = 40;
  embedder_.table.OnChannelUpdateUnsubscribe = nullptr;
  expect_line();
}

}  // namespace
