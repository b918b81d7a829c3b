#include <cw/reply_manager.h>
#include <gtest/gtest.h>

#include <memory>
#include <optional>
#include <stdexcept>

#include "support/bytes.h"
#include "support/stderr_capture.h"

namespace cw::internal {
namespace {

using test_support::Bytes;
using test_support::StderrCapture;

constexpr const char* kDuplicate =
    "Error: Only one of Success, Error, or NotImplemented can be called, and it can be called "
    "exactly once. Ignoring duplicate result.\n";

// Counts replies and keeps the last one; nothing for a null pointer.
struct Replies {
  int count = 0;
  std::optional<Bytes> last;

  BinaryReply MakeHandler() {
    return [this](const std::uint8_t* data, std::size_t size) {
      ++count;
      last = data == nullptr ? std::nullopt : std::optional(Bytes(data, data + size));
      EXPECT_EQ(data == nullptr, size == 0);
    };
  }
};

TEST(ReplyManager, SendsTheReply) {
  Replies replies;
  const Bytes bytes = {1, 2, 3};
  const StderrCapture capture;
  {
    ReplyManager manager(replies.MakeHandler());
    manager.SendResponseData(&bytes);
  }
  EXPECT_EQ(replies.count, 1);
  EXPECT_EQ(replies.last, bytes);
  EXPECT_EQ(capture.GetText(), "");
}

TEST(ReplyManager, SendsANullPointerWhenThereIsNoData) {
  Replies replies;
  const Bytes empty;
  ReplyManager(replies.MakeHandler()).SendResponseData(nullptr);
  EXPECT_EQ(replies.last, std::nullopt);
  ReplyManager(replies.MakeHandler()).SendResponseData(&empty);
  EXPECT_EQ(replies.last, std::nullopt);
  EXPECT_EQ(replies.count, 2);
}

TEST(ReplyManager, SendsANullPointerForABufferThatIsEmptyButAllocated) {
  Replies replies;
  Bytes emptied = {1, 2, 3};
  emptied.clear();
  ASSERT_NE(emptied.data(), nullptr);
  ReplyManager(replies.MakeHandler()).SendResponseData(&emptied);
  EXPECT_EQ(replies.count, 1);
  EXPECT_EQ(replies.last, std::nullopt);
}

TEST(ReplyManager, DropsASecondReplyAndSaysSo) {
  Replies replies;
  const Bytes bytes = {1};
  ReplyManager manager(replies.MakeHandler());
  const StderrCapture capture;
  manager.SendResponseData(nullptr);
  EXPECT_EQ(capture.GetText(), "");
  manager.SendResponseData(&bytes);
  EXPECT_EQ(capture.GetText(), kDuplicate);
  EXPECT_EQ(replies.count, 1);
}

TEST(ReplyManager, WarnsWhenItDiesWithoutAReplyAndSendsNothing) {
  Replies replies;
  const StderrCapture capture;
  { const ReplyManager manager(replies.MakeHandler()); }
  EXPECT_EQ(capture.GetText(), "Warning: Failed to respond to a message. This is a memory leak.\n");
  EXPECT_EQ(replies.count, 0);
}

TEST(ReplyManager, SendsOnceWhenTheReplyFunctionComesBack) {
  const StderrCapture capture;
  int count = 0;
  ReplyManager* self = nullptr;
  ReplyManager manager([&count, &self](const std::uint8_t* /*data*/, std::size_t /*size*/) {
    ++count;
    self->SendResponseData(nullptr);
  });
  self = &manager;
  manager.SendResponseData(nullptr);
  EXPECT_EQ(count, 1);
  EXPECT_EQ(capture.GetText(), kDuplicate);
}

TEST(ReplyManager, MayBeDestroyedByItsReplyFunction) {
  const StderrCapture capture;
  std::unique_ptr<ReplyManager> manager;
  manager = std::make_unique<ReplyManager>(
      [&manager](const std::uint8_t* /*data*/, std::size_t /*size*/) { manager.reset(); });
  manager->SendResponseData(nullptr);
  EXPECT_EQ(manager, nullptr);
  EXPECT_EQ(capture.GetText(), "");
}

TEST(ReplyManager, LetsTheExceptionsOfItsReplyFunctionThrough) {
  ReplyManager manager([](const std::uint8_t* /*data*/, std::size_t /*size*/) {
    throw std::runtime_error("no engine");
  });
  EXPECT_THROW(manager.SendResponseData(nullptr), std::runtime_error);
}

TEST(ReplyManager, CountsAReplyAsSentWhenItsFunctionThrew) {
  int count = 0;
  const StderrCapture capture;
  {
    ReplyManager manager([&count](const std::uint8_t* /*data*/, std::size_t /*size*/) {
      ++count;
      throw std::runtime_error("no engine");
    });
    EXPECT_THROW(manager.SendResponseData(nullptr), std::runtime_error);
    EXPECT_EQ(capture.GetText(), "");
    EXPECT_NO_THROW(manager.SendResponseData(nullptr));
  }
  EXPECT_EQ(count, 1);
  EXPECT_EQ(capture.GetText(), kDuplicate) << "and no warning that nothing was sent";
}

TEST(ReplyManagerDeathTest, StopsTheProcessForAnEmptyReplyFunction) {
  EXPECT_DEATH(ReplyManager{BinaryReply()}, "Assertion \"reply_handler_\" failed: a ReplyManager");
}

}  // namespace
}  // namespace cw::internal
