// Empty lists of items wider than a byte, which some peers pad and others do not.
#include <cw/byte_streams.h>
#include <cw/method_codec.h>
#include <cw/standard_codec.h>
#include <cw/standard_message_codec.h>
#include <gtest/gtest.h>

#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

#include "support/bytes.h"
#include "support/stderr_capture.h"

namespace cw {
namespace {

using test_support::Bytes;
using test_support::FromHex;
using test_support::StderrCapture;

constexpr const char* kInvalidRead = "Invalid read in StandardCodecByteStreamReader\n";
constexpr const char* kUnknownType20 =
    "Unknown type in StandardCodecSerializer::ReadValueOfType: 32\n";

using Int32s = std::vector<std::int32_t>;

EncodableValue Decode(const std::string& hex) {
  const Bytes bytes = FromHex(hex);
  return EncodableValue::Deserialize(bytes.data(), bytes.size());
}

// What decoding the bytes gives, which has nothing to complain about.
EncodableValue DecodeInSilence(const std::string& hex) {
  const StderrCapture capture;
  EncodableValue value = Decode(hex);
  EXPECT_EQ(capture.GetText(), "") << hex;
  return value;
}

template <class T>
void ExpectBackFromEveryPlace() {
  const StderrCapture capture;
  for (std::size_t before = 0; before < 9; ++before) {
    EncodableList list(before, EncodableValue(true));
    list.emplace_back(std::vector<T>());
    list.emplace_back("behind");
    list.emplace_back(2.5);
    const EncodableValue value(EncodableMap{{"list", list}, {"user", "ann"}});
    EXPECT_EQ(EncodableValue::Deserialize(value.Serialize()), value) << before;
  }
  EXPECT_EQ(capture.GetText(), "");
}

TEST(EmptyTypedList, ComesBackWhateverIsBehindIt) {
  ExpectBackFromEveryPlace<std::uint8_t>();
  ExpectBackFromEveryPlace<std::int32_t>();
  ExpectBackFromEveryPlace<std::int64_t>();
  ExpectBackFromEveryPlace<double>();
  ExpectBackFromEveryPlace<float>();
}

TEST(EmptyTypedList, IsReadWithThePaddingThatDartWritesToo) {
  const EncodableList int32s{true, Int32s(), true};
  const EncodableList int64s{true, std::vector<std::int64_t>(), true};
  const EncodableList doubles{true, std::vector<double>(), true};
  const EncodableList floats{true, std::vector<float>(), true};
  EXPECT_EQ(DecodeInSilence("0C 03 01 09 00 00*3 01"), int32s);
  EXPECT_EQ(DecodeInSilence("0C 03 01 0A 00 00*3 01"), int64s);
  EXPECT_EQ(DecodeInSilence("0C 03 01 0B 00 00*3 01"), doubles);
  EXPECT_EQ(DecodeInSilence("0C 03 01 0E 00 00*3 01"), floats);
}

TEST(EmptyTypedList, MayHaveItsCountInALongForm) {
  const EncodableList expected{true, Int32s(), true};
  EXPECT_EQ(DecodeInSilence("0C 03 01 09 FE 00 00 01"), expected);
  EXPECT_EQ(DecodeInSilence("0C 03 01 09 FE 00 00 00 01"), expected);
  EXPECT_EQ(DecodeInSilence("0C 03 01 09 FF 00*4 01"), expected);
  EXPECT_EQ(DecodeInSilence("0C 03 01 09 FF 00*4 00*3 01"), expected);
}

TEST(EmptyTypedList, IsTakenForPaddedWhenTheMessageDoesNotComeOutEven) {
  // Bytes are left over.
  EXPECT_EQ(DecodeInSilence("0C 01 0A 00 00*4"), (EncodableList{std::vector<std::int64_t>()}));
  // An unknown type: what stands in the padding does not matter.
  EXPECT_EQ(DecodeInSilence("0C 03 01 09 00 20*3 01"), (EncodableList{true, Int32s(), true}));
  // A read past the end: the padding would be the type and the length of a text.
  EXPECT_EQ(DecodeInSilence("0C 03 01 09 00 07 09 61 01"), (EncodableList{true, Int32s(), true}));
  // More than may be made up: the padding would be the type and the size of a list.
  EXPECT_EQ(DecodeInSilence("0C 06 01 09 00 0C FF FF 04 FF*8 01 01 01"),
            (EncodableList{true, Int32s(), std::int64_t{-1}, true, true, true}));
}

TEST(EmptyTypedList, IsNotTakenForPaddedWithoutNeed) {
  // As padded as well as not.
  EXPECT_EQ(DecodeInSilence("0C 05 01 09 00 00 00 00"),
            (EncodableList{true, Int32s(), nullptr, nullptr, nullptr}));
}

TEST(EmptyTypedList, LeavesTrailingBytesAloneWhereItsAlignmentIsMet) {
  EXPECT_EQ(DecodeInSilence("0C 02 09 00 01 FF FF"), (EncodableList{Int32s(), true}));
}

TEST(EmptyTypedList, LetsOnlyTheLastReadingReport) {
  const StderrCapture capture;
  // Neither reading comes out even; read as padded, the last two items are missing.
  EXPECT_EQ(Decode("0C 04 20 09 00 01"), (EncodableList{nullptr, Int32s(), nullptr, nullptr}));
  EXPECT_EQ(capture.GetText(), std::string(kUnknownType20) + kInvalidRead + kInvalidRead);
}

TEST(EmptyTypedList, IsNotNeededToReport) {
  const StderrCapture capture;
  EXPECT_EQ(Decode("0C 03 20 08 00"), (EncodableList{nullptr, Bytes(), nullptr}));
  EXPECT_EQ(capture.GetText(), std::string(kUnknownType20) + kInvalidRead);
}

TEST(EmptyTypedList, IsPaddedInAStreamOfOnesOwn) {
  const StandardCodecSerializer& serializer = StandardCodecSerializer::GetInstance();
  const Bytes bytes = FromHex("0C 03 01 09 00 00*3 01");
  ByteBufferStreamReader reader(bytes.data(), bytes.size());
  EXPECT_EQ(serializer.ReadValue(&reader), (EncodableList{true, Int32s(), true}));
  const Bytes unpadded = FromHex("00 0A 00 01 00*4 02");
  ByteBufferStreamReader other(unpadded.data(), unpadded.size());
  other.ReadByte();
  EXPECT_EQ(serializer.ReadValueOfType(other.ReadByte(), &other), std::vector<std::int64_t>());
  EXPECT_EQ(other.ReadByte(), 2);
}

// A stream that knows nothing of empty lists, and one that knows them not to be padded.
class PlainReader : public ByteStreamReader {
 public:
  explicit PlainReader(const Bytes& bytes) : reader_(bytes.data(), bytes.size()) {}
  std::uint8_t ReadByte() override { return reader_.ReadByte(); }
  void ReadBytes(std::uint8_t* out, std::size_t length) override { reader_.ReadBytes(out, length); }
  void ReadAlignment(std::uint8_t alignment) override { reader_.ReadAlignment(alignment); }

 private:
  ByteBufferStreamReader reader_;
};

class UnpaddedReader : public PlainReader {
 public:
  using PlainReader::PlainReader;
  void ReadEmptyListAlignment(std::uint8_t alignment) override { asked_for.push_back(alignment); }

  std::vector<int> asked_for;
};

TEST(EmptyTypedList, IsPaddedInAStreamThatDoesNotSayOtherwise) {
  const Bytes bytes = FromHex("0C 03 01 09 00 00*3 01");
  PlainReader reader(bytes);
  EXPECT_EQ(StandardCodecSerializer::GetInstance().ReadValue(&reader),
            (EncodableList{true, Int32s(), true}));
}

TEST(EmptyTypedList, AsksItsStreamWhetherItIsPadded) {
  const Bytes bytes = FromHex("0C 07 01 09 00 0A 00 0B 00 0E 00 08 00 01");
  UnpaddedReader reader(bytes);
  EXPECT_EQ(StandardCodecSerializer::GetInstance().ReadValue(&reader),
            (EncodableList{true, Int32s(), std::vector<std::int64_t>(), std::vector<double>(),
                           std::vector<float>(), Bytes(), true}));
  EXPECT_EQ(reader.asked_for, (std::vector<int>{4, 8, 8, 4}));
}

// Reads an empty list of one's own kind, whose items need not be aligned.
class BytewiseSerializer : public StandardCodecSerializer {
 public:
  EncodableValue ReadValueOfType(std::uint8_t type, ByteStreamReader* stream) const override {
    if (type != 0x20) {
      return StandardCodecSerializer::ReadValueOfType(type, stream);
    }
    stream->ReadEmptyListAlignment(0);
    return EncodableValue("mine");
  }
};

TEST(EmptyTypedList, HasNoPaddingWhereItsItemsNeedNoAlignment) {
  static const BytewiseSerializer serializer;
  const Bytes bytes = FromHex("0C 02 20 01");
  const StderrCapture capture;
  const auto value =
      StandardMessageCodec::GetInstance(&serializer).DecodeMessage(bytes.data(), bytes.size());
  ASSERT_NE(value, nullptr);
  EXPECT_EQ(*value, (EncodableList{"mine", true}));
  EXPECT_EQ(capture.GetText(), "");
}

// ---- In messages of the codecs

TEST(EmptyTypedList, ComesBackInAMessage) {
  const StandardMessageCodec& codec = StandardMessageCodec::GetInstance();
  const EncodableValue value(EncodableMap{{"tags", Int32s()}, {"user", "ann"}});
  const StderrCapture capture;
  EXPECT_EQ(*codec.DecodeMessage(codec.EncodeMessage(value)), value);
  EXPECT_EQ(capture.GetText(), "");
}

const StandardMethodCodec& Methods() { return StandardMethodCodec::GetInstance(); }

TEST(EmptyTypedList, ComesBackInTheArgumentsOfACall) {
  const EncodableMap arguments{{"tags", std::vector<double>()}, {"user", "ann"}};
  const StderrCapture capture;
  const auto call = Methods().DecodeMethodCall(Methods().EncodeMethodCall(
      MethodCall<>("store", std::make_unique<EncodableValue>(arguments))));
  ASSERT_NE(call, nullptr);
  EXPECT_EQ(call->GetMethodName(), "store");
  EXPECT_EQ(*call->GetArguments(), arguments);
  EXPECT_EQ(capture.GetText(), "");
}

TEST(EmptyTypedList, ComesInTheArgumentsOfACallFromDart) {
  const auto call = Methods().DecodeMethodCall(
      quarn::Buffer(FromHex("07 01 61 0D 01 0A 00 00 07 01 62")));  // a({int64[]: "b"})
  ASSERT_NE(call, nullptr);
  EXPECT_EQ(*call->GetArguments(), (EncodableMap{{std::vector<std::int64_t>(), "b"}}));
}

// Keeps what a reply comes to.
class Outcome : public MethodResult<EncodableValue> {
 public:
  std::string code;
  std::string message;
  std::optional<EncodableValue> value;  // the result, or the details

 protected:
  void SuccessInternal(const EncodableValue* result) override { value = *result; }
  void ErrorInternal(const std::string& error_code, const std::string& error_message,
                     const EncodableValue* details) override {
    code = error_code;
    message = error_message;
    value = *details;
  }
  void NotImplementedInternal() override {}
};

TEST(EmptyTypedList, ComesBackInAResult) {
  const EncodableValue result(EncodableList{std::vector<float>(), "behind"});
  const quarn::Buffer reply = Methods().EncodeSuccessEnvelope(&result);
  Outcome outcome;
  ASSERT_TRUE(
      Methods().DecodeAndProcessResponseEnvelope(reply.GetData(), reply.GetSize(), &outcome));
  EXPECT_EQ(outcome.value, result);
}

TEST(EmptyTypedList, ComesBackInTheDetailsOfAnError) {
  for (const std::string text : {"", "m", "me", "mes", "mess"}) {
    const EncodableValue details(EncodableList{std::vector<std::int64_t>(), "behind"});
    const quarn::Buffer reply = Methods().EncodeErrorEnvelope("E", text, &details);
    Outcome outcome;
    ASSERT_TRUE(
        Methods().DecodeAndProcessResponseEnvelope(reply.GetData(), reply.GetSize(), &outcome));
    EXPECT_EQ(outcome.code, "E");
    EXPECT_EQ(outcome.message, text);
    EXPECT_EQ(outcome.value, details) << text;
  }
}

TEST(EmptyTypedList, ComesInAReplyFromDart) {
  const Bytes reply = FromHex("00 0C 02 0A 00 00*3 01");
  Outcome outcome;
  ASSERT_TRUE(Methods().DecodeAndProcessResponseEnvelope(reply.data(), reply.size(), &outcome));
  EXPECT_EQ(outcome.value, EncodableValue(EncodableList{std::vector<std::int64_t>(), true}));
}

// ---- Through serializers of one's own

// Reads a type of its own, 128, as two values in a list, and counts how often.
class PairSerializer : public StandardCodecSerializer {
 public:
  EncodableValue ReadValueOfType(std::uint8_t type, ByteStreamReader* stream) const override {
    if (type != 128) {
      return StandardCodecSerializer::ReadValueOfType(type, stream);
    }
    ++pairs_read;
    EncodableValue first = ReadValue(stream);
    EncodableValue second = ReadValue(stream);
    if (second.IsNull()) {
      throw std::invalid_argument("a pair has two sides");
    }
    return EncodableList{std::move(first), std::move(second)};
  }

  mutable int pairs_read = 0;
};

EncodableValue DecodeWith(const PairSerializer& serializer, const std::string& hex) {
  const Bytes bytes = FromHex(hex);
  return *StandardMessageCodec::GetInstance(&serializer).DecodeMessage(bytes.data(), bytes.size());
}

TEST(EmptyTypedList, ComesInTypesOfOnesOwn) {
  static const PairSerializer serializer;
  const EncodableValue expected(EncodableList{Int32s(), true});
  EXPECT_EQ(DecodeWith(serializer, "80 09 00 01"), expected);
  EXPECT_EQ(serializer.pairs_read, 1);
  EXPECT_EQ(DecodeWith(serializer, "80 09 00 20 01"), expected);
  EXPECT_EQ(serializer.pairs_read, 3);
}

TEST(EmptyTypedList, IsTakenForPaddedWhenAnUnpaddedReadingIsRefused) {
  static const PairSerializer serializer;
  EXPECT_EQ(DecodeWith(serializer, "80 09 00 00 01"),
            EncodableValue(EncodableList{Int32s(), true}));
  EXPECT_EQ(serializer.pairs_read, 2);
}

TEST(EmptyTypedList, IsTheOnlyReasonToReadAMessageTwice) {
  static const PairSerializer serializer;
  const StderrCapture capture;
  EXPECT_THROW(DecodeWith(serializer, "80 20"), std::invalid_argument);
  EXPECT_EQ(serializer.pairs_read, 1);
  EXPECT_EQ(DecodeWith(serializer, "80 20 01 FF"), EncodableValue(EncodableList{nullptr, true}));
  EXPECT_EQ(serializer.pairs_read, 2);
  EXPECT_EQ(capture.GetText(), std::string(kUnknownType20) + kInvalidRead + kUnknownType20);
}

}  // namespace
}  // namespace cw
