// Lines on standard error when nobody reads them, or when std::cerr is told to throw.

#include <cw/diagnostics.h>
#include <cw/internal/diagnostics.h>
#include <cw/reply_manager.h>
#include <cw/standard_message_codec.h>
#include <gtest/gtest.h>

#include <csignal>
#include <iostream>

#include "support/broken_pipe.h"
#include "support/bytes.h"

namespace cw::internal {
namespace {

using tarv::test::BrokenPipe;
using test_support::Bytes;

class ABrokenPipe : public testing::Test {
 protected:
  ABrokenPipe() : before_(std::signal(SIGPIPE, SIG_DFL)), pipe_(STDERR_FILENO) {}
  ~ABrokenPipe() override { std::signal(SIGPIPE, before_); }

 private:
  void (*before_)(int);
  BrokenPipe pipe_;
};

TEST_F(ABrokenPipe, IsOutlivedByALine) {
  WriteDiagnostic("lost\n");
  ReportNoMethodCall("channel");
  EXPECT_TRUE(std::cerr.good());
}

TEST_F(ABrokenPipe, IsOutlivedByTheFaultsOfAMessage) {
  const Bytes unknown_type = {99};
  const auto value =
      StandardMessageCodec::GetInstance().DecodeMessage(unknown_type.data(), unknown_type.size());
  ASSERT_TRUE(value);
  EXPECT_TRUE(value->IsNull());
}

TEST_F(ABrokenPipe, IsOutlivedByAReplyThatIsNeverSentOrSentTwice) {
  int replies = 0;
  const ReplyManager never([&replies](const std::uint8_t*, std::size_t) { ++replies; });
  ReplyManager twice([&replies](const std::uint8_t*, std::size_t) { ++replies; });
  twice.SendResponseData(nullptr);
  twice.SendResponseData(nullptr);
  EXPECT_EQ(replies, 1);
}

TEST_F(ABrokenPipe, ThrowsNothingEvenIfStdCerrWould) {
  std::cerr.exceptions(std::ios::badbit | std::ios::failbit);
  EXPECT_NO_THROW(WriteDiagnostic("lost\n"));
  std::cerr.exceptions(std::ios::goodbit);
  std::cerr.clear();
}

}  // namespace
}  // namespace cw::internal
