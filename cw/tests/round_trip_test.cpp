#include <cw/byte_streams.h>
#include <cw/encodable_value.h>
#include <cw/method_codec.h>
#include <cw/standard_codec.h>
#include <cw/standard_message_codec.h>
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

// Streams that are no buffers, around one each.
class OtherWriter : public ByteStreamWriter {
 public:
  explicit OtherWriter(quarn::Buffer* buffer) : writer_(buffer) {}
  void WriteByte(std::uint8_t byte) override { writer_.WriteByte(byte); }
  void WriteBytes(const std::uint8_t* data, std::size_t length) override {
    writer_.WriteBytes(data, length);
  }
  void WriteAlignment(std::uint8_t alignment) override { writer_.WriteAlignment(alignment); }

 private:
  ByteBufferStreamWriter writer_;
};

class OtherReader : public ByteStreamReader {
 public:
  explicit OtherReader(const quarn::Buffer& bytes) : reader_(bytes.GetData(), bytes.GetSize()) {}
  std::uint8_t ReadByte() override { return reader_.ReadByte(); }
  void ReadBytes(std::uint8_t* out, std::size_t length) override { reader_.ReadBytes(out, length); }
  void ReadAlignment(std::uint8_t alignment) override { reader_.ReadAlignment(alignment); }
  void ReadEmptyListAlignment(std::uint8_t /*alignment*/) override {}  // as it is written
  std::size_t BytesLeft() const override { return reader_.BytesLeft(); }

 private:
  ByteBufferStreamReader reader_;
};

template <class Writer>
quarn::Buffer WriteWith(const StandardCodecSerializer& serializer, const EncodableValue& value) {
  quarn::Buffer buffer;
  Writer writer(&buffer);
  serializer.WriteValue(value, &writer);
  return buffer;
}

TEST(RoundTrip, IsTheSameThroughEverySerializerAndStream) {
  const std::uint64_t seed = TestSeed(1213);
  SCOPED_TRACE("TARV_TEST_SEED=" + std::to_string(seed));
  RandomValues values(seed, {5, 20, 60, false});
  const StandardCodecSerializer& shared = StandardCodecSerializer::GetInstance();
  static const StandardCodecSerializer other;
  for (int i = 0; i < 500; ++i) {
    const EncodableValue value(values.NextMap());
    const quarn::Buffer bytes = WriteWith<ByteBufferStreamWriter>(shared, value);
    ASSERT_EQ(WriteWith<OtherWriter>(shared, value), bytes) << "value number " << i;
    ASSERT_EQ(WriteWith<ByteBufferStreamWriter>(other, value), bytes) << "value number " << i;
    OtherReader other_reader(bytes);
    ASSERT_EQ(shared.ReadValue(&other_reader), value) << "value number " << i;
    ASSERT_EQ(*StandardMessageCodec::GetInstance(&other).DecodeMessage(bytes), value)
        << "value number " << i;
  }
}

// Lengths around those at which the writer gathers pieces, copies them or passes them on.
TEST(RoundTrip, OfTextsAndBytesOfEveryLengthInARow) {
  EncodableList list;
  for (std::size_t length = 0; length <= 300; ++length) {
    list.emplace_back(std::string(length, static_cast<char>('a' + length % 26)));
    list.emplace_back(std::vector<std::uint8_t>(length, static_cast<std::uint8_t>(length)));
    list.emplace_back(static_cast<double>(length));
  }
  for (const std::size_t length : {4000U, 4094U, 4095U, 4096U, 4097U, 10000U}) {
    list.emplace_back(std::string(length, 'x'));
  }
  const EncodableValue value(std::move(list));
  const quarn::Buffer bytes = value.Serialize();
  EXPECT_EQ(bytes, WriteWith<OtherWriter>(StandardCodecSerializer::GetInstance(), value));
  EXPECT_EQ(EncodableValue::Deserialize(bytes), value);
}

TEST(RoundTrip, OfTypedListsWhereverTheMessageLiesInMemory) {
  const EncodableValue value(EncodableList{
      std::vector<std::int32_t>{1, -2, 3}, std::vector<std::int64_t>{4, -5},
      std::vector<double>{0.5, -6}, std::vector<float>{7, 0.25}, std::vector<std::uint8_t>{8}});
  const Bytes bytes = ToBytes(value.Serialize());
  for (std::size_t shift = 0; shift <= 8; ++shift) {
    Bytes shifted(shift);
    shifted.insert(shifted.end(), bytes.begin(), bytes.end());
    EXPECT_EQ(EncodableValue::Deserialize(shifted.data() + shift, bytes.size()), value) << shift;
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

}  // namespace
}  // namespace cw::test_support
