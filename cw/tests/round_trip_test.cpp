#include <cw/encodable_value.h>
#include <cw/method_codec.h>
#include <gtest/gtest.h>

#include <cmath>
#include <limits>

#include "support/bytes.h"
#include "support/random_value.h"
#include "support/stderr_capture.h"

namespace cw::test_support {
namespace {

TEST(RoundTrip, GivesBackEveryRandomValueWithoutComplaint) {
  const std::uint64_t seed = TestSeed(20261121);
  SCOPED_TRACE("TARV_TEST_SEED=" + std::to_string(seed));
  RandomValues values(seed);
  const StderrCapture capture;
  for (int i = 0; i < 3000; ++i) {
    const EncodableValue value = i % 2 == 0 ? values.Next() : EncodableValue(values.NextMap());
    ASSERT_EQ(EncodableValue::Deserialize(value.Serialize()), value) << "value number " << i;
  }
  EXPECT_EQ(capture.GetText(), "");
}

TEST(RoundTrip, GivesTheSameBytesAgain) {
  const std::uint64_t seed = TestSeed(4711);
  SCOPED_TRACE("TARV_TEST_SEED=" + std::to_string(seed));
  RandomValues values(seed, {6, 4, 20, true});
  for (int i = 0; i < 1000; ++i) {
    const quarn::Buffer bytes = values.Next().Serialize();
    ASSERT_EQ(EncodableValue::Deserialize(bytes).Serialize(), bytes) << "value number " << i;
  }
}

TEST(RoundTrip, GivesBackTheArgumentsOfRandomMethodCalls) {
  const std::uint64_t seed = TestSeed(99);
  SCOPED_TRACE("TARV_TEST_SEED=" + std::to_string(seed));
  RandomValues values(seed);
  const StandardMethodCodec& codec = StandardMethodCodec::GetInstance();
  for (int i = 0; i < 500; ++i) {
    const std::string name = values.NextText();
    const EncodableValue arguments = values.Next();
    const auto call = codec.DecodeMethodCall(codec.EncodeMethodCall(
        MethodCall<EncodableValue>(name, std::make_unique<EncodableValue>(arguments))));
    ASSERT_NE(call, nullptr);
    ASSERT_EQ(call->GetMethodName(), name);
    ASSERT_EQ(*call->GetArguments(), arguments);
  }
}

TEST(RoundTrip, KeepsTheBitsOfANaN) {
  const EncodableValue nan(std::numeric_limits<double>::quiet_NaN());
  const EncodableValue decoded = EncodableValue::Deserialize(nan.Serialize());
  EXPECT_EQ(decoded.Serialize(), nan.Serialize());
  EXPECT_NE(decoded, nan);
}

TEST(RoundTrip, KeepsTheSignOfZero) {
  const EncodableValue decoded = EncodableValue::Deserialize(EncodableValue(-0.0).Serialize());
  EXPECT_TRUE(std::signbit(std::get<double>(decoded)));
}

TEST(RoundTrip, OfListsAndMapsAtEachSizeBorder) {
  for (const int size : {253, 254, 255, 256, 65535, 65536}) {
    EncodableList list;
    EncodableMap map;
    for (int i = 0; i < size; ++i) {
      list.emplace_back(i % 2 == 0);
      map.emplace(i, i % 2 == 0);
    }
    const EncodableValue value(EncodableMap{{"list", list}, {"map", map}});
    EXPECT_EQ(EncodableValue::Deserialize(value.Serialize()), value) << size;
  }
}

// The writer leaves out the padding of an empty list, readers skip it: inside other values, an
// empty list of wider items that does not end on its alignment swallows what follows.
TEST(RoundTrip, OfAnEmptyTypedListInsideAListNeedsItsAlignment) {
  const Bytes aligned = FromHex("0C 02 09 00 01");
  const Bytes shifted = FromHex("0C 03 01 09 00 01");
  const Bytes padded = FromHex("0C 03 01 09 00 00*3 01");
  const StderrCapture capture;
  EXPECT_EQ(EncodableValue::Deserialize(aligned.data(), aligned.size()),
            EncodableValue(EncodableList{std::vector<std::int32_t>(), true}));
  EXPECT_EQ(capture.GetText(), "");
  EXPECT_EQ(EncodableValue::Deserialize(padded.data(), padded.size()),
            EncodableValue(EncodableList{true, std::vector<std::int32_t>(), true}));
  EXPECT_EQ(capture.GetText(), "");
  EXPECT_EQ(EncodableValue::Deserialize(shifted.data(), shifted.size()),
            EncodableValue(EncodableList{true, std::vector<std::int32_t>(), nullptr}));
  EXPECT_EQ(capture.GetText(), "Invalid read in StandardCodecByteStreamReader\n");
}

}  // namespace
}  // namespace cw::test_support
