#include <gtest/gtest.h>
#include <vorpc/message.h>

#include <cstdint>
#include <string>

#include "random_messages.h"
#include "support/capture.h"

namespace vorpc::test_support {
namespace {

using cw::test_support::TestSeed;

TEST(MessageProperty, EveryMessageSurvivesItsTextForm) {
  const std::uint64_t seed = TestSeed(31337);
  SCOPED_TRACE("TARV_TEST_SEED=" + std::to_string(seed));
  RandomMessages messages(seed);
  for (int i = 0; i < 2000; ++i) {
    const Message message = messages.Next();
    ASSERT_EQ(Message::FromBase64(message.ToBase64()), message) << "message number " << i;
  }
}

TEST(MessageProperty, TheTextFormIsThatOfTheEncodedMap) {
  const std::uint64_t seed = TestSeed(271828);
  SCOPED_TRACE("TARV_TEST_SEED=" + std::to_string(seed));
  RandomMessages messages(seed);
  for (int i = 0; i < 2000; ++i) {
    const Message message = messages.Next();
    ASSERT_EQ(message.ToBase64(), message.ToEncodable().Serialize().ToBase64())
        << "message number " << i << ": " << message;
  }
}

TEST(MessageProperty, DecodingByMoveAndByCopyAgree) {
  const std::uint64_t seed = TestSeed(1618);
  SCOPED_TRACE("TARV_TEST_SEED=" + std::to_string(seed));
  RandomMessages messages(seed);
  for (int i = 0; i < 500; ++i) {
    const cw::EncodableValue value = messages.Next().ToEncodable();
    cw::EncodableValue copy = value;
    ASSERT_EQ(Message::FromEncodable(value), Message::FromEncodable(std::move(copy)));
  }
}

TEST(MessageProperty, DamagedTextsGiveSomeMessageAndNeverThrow) {
  const std::uint64_t seed = TestSeed(99);
  SCOPED_TRACE("TARV_TEST_SEED=" + std::to_string(seed));
  RandomMessages messages(seed);
  int errors = 0;
  const auto decode = [&messages, &errors] {
    for (int i = 0; i < 2000; ++i) {
      const Message message = Message::FromBase64(messages.NextDamaged(messages.Next().ToBase64()));
      errors += message.IsError() ? 1 : 0;
    }
  };
  // The lines about what is missing and what is wrong do not matter here.
  tarv::test::StderrOf([&decode] { tarv::test::StdoutOf(decode); });
  EXPECT_GT(errors, 100);
}

}  // namespace
}  // namespace vorpc::test_support
