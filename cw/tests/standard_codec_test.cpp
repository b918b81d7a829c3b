#include <cw/method_codec.h>
#include <cw/standard_codec.h>
#include <cw/standard_message_codec.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <deque>
#include <memory>
#include <set>
#include <stdexcept>
#include <thread>

#include "support/bytes.h"
#include "support/random_value.h"
#include "support/stderr_capture.h"
#include "support/valueless.h"

namespace cw {
namespace {

using test_support::Bytes;
using test_support::FromHex;
using test_support::RandomValues;
using test_support::StderrCapture;
using test_support::ToBytes;

constexpr const char* kInvalidRead = "Invalid read in StandardCodecByteStreamReader\n";

Bytes Encode(const EncodableValue& value) { return ToBytes(value.Serialize()); }

EncodableValue Decode(const std::string& hex) {
  const Bytes bytes = FromHex(hex);
  return *StandardMessageCodec::GetInstance().DecodeMessage(bytes.data(), bytes.size());
}

std::size_t CountLines(const std::string& text) {
  return static_cast<std::size_t>(std::count(text.begin(), text.end(), '\n'));
}

// `levels` lists in each other; the innermost holds what `inner` says.
std::string NestedLists(std::size_t levels, const std::string& inner) {
  std::string hex;
  for (std::size_t i = 1; i < levels; ++i) {
    hex += "0C 01 ";
  }
  return hex + "0C " + inner;
}

EncodableValue NestedValue(std::size_t levels) {
  EncodableValue value(EncodableList{});
  for (std::size_t i = 1; i < levels; ++i) {
    EncodableList outer;
    outer.push_back(std::move(value));
    value = EncodableValue(std::move(outer));
  }
  return value;
}

// ---- Bytes of single values

TEST(StandardCodec, Writes32And64BitIntegers) {
  EXPECT_EQ(Encode(1), FromHex("03 01 00 00 00"));
  EXPECT_EQ(Encode(std::int64_t{1}), FromHex("04 01 00 00 00 00 00 00 00"));
}

TEST(StandardCodec, PadsADoubleAtTheStartBySevenBytes) {
  EXPECT_EQ(Encode(1.0), FromHex("06 00*7 00 00 00 00 00 00 F0 3F"));
}

TEST(StandardCodec, WritesTheThreeFormsOfSizes) {
  EXPECT_EQ(Encode("hi"), FromHex("07 02 68 69"));
  EXPECT_EQ(Encode(std::string(300, 'a')), FromHex("07 FE 2C 01 61*300"));
  EXPECT_EQ(Encode(std::string(70000, 'a')), FromHex("07 FF 70 11 01 00 61*70000"));
}

TEST(StandardCodec, PadsADoubleInAListFromTheStartOfTheMessage) {
  EXPECT_EQ(Encode(EncodableValue(EncodableList{1.0})),
            FromHex("0C 01 06 00*5 00 00 00 00 00 00 F0 3F"));
}

TEST(StandardCodec, WritesAnEmptyTypedListAsItsSizeAlone) {
  EXPECT_EQ(Encode(std::vector<double>()), FromHex("0B 00"));
  EXPECT_EQ(Encode(EncodableValue(EncodableList{std::vector<std::int64_t>(), true})),
            FromHex("0C 02 0A 00 01"));
}

TEST(StandardCodec, WritesAValueWithoutAnAlternativeAsNull) {
  const EncodableValue value(EncodableList(5000, test_support::MakeValueless()));
  const Bytes expected = FromHex("0C FE 88 13 00*5000");
  EXPECT_EQ(Encode(value), expected);
  quarn::Buffer buffer;
  ByteBufferStreamWriter writer(&buffer);
  const StandardCodecSerializer other;
  other.WriteValue(value, &writer);
  EXPECT_EQ(ToBytes(buffer), expected);
}

TEST(StandardCodec, ReadsALargeIntegerAsAString) { EXPECT_EQ(Decode("05 01 41"), "A"); }

TEST(StandardCodec, KeepsTheFirstValueOfARepeatedKey) {
  EXPECT_EQ(Decode("0D 02 07 01 61 01 07 01 61 02"), (EncodableMap{{"a", true}}));
}

TEST(StandardCodec, KeepsTheFirstValueOfARepeatedKeyAnywhereInTheMap) {
  const EncodableMap expected{{"a", 1}, {"b", 2}, {"c", 3}};
  const std::string a = "07 01 61 03 01 00 00 00 ";
  const std::string b = "07 01 62 03 02 00 00 00 ";
  const std::string c = "07 01 63 03 03 00 00 00 ";
  for (const std::string repeated : {"07 01 61 ", "07 01 62 ", "07 01 63 "}) {
    EXPECT_EQ(Decode("0D 04 " + a + b + c + repeated + "02"), expected) << repeated;
    EXPECT_EQ(Decode("0D 04 " + c + b + a + repeated + "02"), expected) << repeated;
    EXPECT_EQ(Decode("0D 05 " + b + a + c + repeated + "0C 01 00 " + repeated + "02"), expected)
        << repeated;
  }
}

TEST(StandardCodec, ReadsMapEntriesInAnyOrder) {
  EXPECT_EQ(Decode("0D 03 07 01 62 01 07 01 61 02 07 01 63 00"),
            (EncodableMap{{"a", false}, {"b", true}, {"c", nullptr}}));
}

TEST(StandardCodec, ReportsAnUnknownTypeAndGivesNull) {
  const StderrCapture capture;
  EXPECT_TRUE(Decode("20").IsNull());
  EXPECT_EQ(capture.GetText(), "Unknown type in StandardCodecSerializer::ReadValueOfType: 32\n");
}

TEST(StandardCodec, ReportsAnUnknownTypeInsideAListAndGoesOn) {
  const StderrCapture capture;
  EXPECT_EQ(Decode("0C 02 FF 01"), (EncodableList{nullptr, true}));
  EXPECT_EQ(capture.GetText(), "Unknown type in StandardCodecSerializer::ReadValueOfType: 255\n");
}

TEST(StandardCodec, ReportsNoMoreThanAHundredFaultsOfOneMessage) {
  const std::string unknown = "Unknown type in StandardCodecSerializer::ReadValueOfType: 32\n";
  std::string lines;
  for (int i = 0; i < 100; ++i) {
    lines += unknown;
  }
  const std::string more = "The message has more faults; the lines about them are left out.\n";
  {
    const StderrCapture capture;
    Decode("0C 64 20*100");
    EXPECT_EQ(capture.GetText(), lines);
  }
  {
    const StderrCapture capture;
    EXPECT_EQ(Decode("0C FF 00 00 10 00 20*1048576").AsList()->size(), 1048576U);
    EXPECT_EQ(capture.GetText(), lines + more);
  }
}

TEST(StandardCodec, CountsFaultsOfEveryKindAndForEachMessage) {
  const StderrCapture capture;
  Decode("0C 78 20*60");
  const std::string text = capture.GetText();
  EXPECT_EQ(CountLines(text), 101U);
  EXPECT_EQ(text.substr(text.size() - 64),
            "The message has more faults; the lines about them are left out.\n");
  Decode("20");
  EXPECT_EQ(CountLines(capture.GetText()), 102U);
}

TEST(StandardCodec, CountsTheFaultsOfAStreamOfOnesOwn) {
  const Bytes bytes = FromHex("0C C8 20*150");
  ByteBufferStreamReader reader(bytes.data(), bytes.size());
  const StderrCapture capture;
  StandardCodecSerializer::GetInstance().ReadValue(&reader);
  EXPECT_EQ(CountLines(capture.GetText()), 101U);
  reader.ReadByte();
  EXPECT_EQ(CountLines(capture.GetText()), 101U);
}

// ---- Input that ends too soon

TEST(StandardCodec, ReportsAShortIntegerOnceAndGivesZero) {
  const StderrCapture capture;
  EXPECT_EQ(Decode("03 01"), 0);
  EXPECT_EQ(capture.GetText(), kInvalidRead);
}

TEST(StandardCodec, GivesZerosForEachKindThatIsCutOff) {
  const StderrCapture capture;
  EXPECT_EQ(Decode("04 01 02"), std::int64_t{0});
  EXPECT_EQ(Decode("06 00*7 01"), 0.0);
  EXPECT_EQ(Decode("06"), 0.0);
  EXPECT_EQ(Decode("07 02 61"), std::string(2, '\0'));
  EXPECT_EQ(Decode("08 02 61"), std::vector<std::uint8_t>(2));
  EXPECT_EQ(Decode("09 01"), std::vector<std::int32_t>(1));
  EXPECT_EQ(Decode("0A 01 00"), std::vector<std::int64_t>(1));
  EXPECT_EQ(Decode("0B 01 00*6 01"), std::vector<double>(1));
  EXPECT_EQ(Decode("0E 02 00*2 01*4"), std::vector<float>(2));
  EXPECT_EQ(CountLines(capture.GetText()), 9U);
}

TEST(StandardCodec, GivesEmptyItemsForMissingSizes) {
  const StderrCapture capture;
  EXPECT_EQ(Decode("07"), "");
  EXPECT_EQ(Decode("07 FE 01"), "");
  EXPECT_EQ(Decode("0C FF 01 00 00"), EncodableList());
  EXPECT_EQ(Decode("0D"), EncodableMap());
  EXPECT_EQ(CountLines(capture.GetText()), 4U);
}

TEST(StandardCodec, GivesNullsForMissingListElementsEachWithItsLine) {
  const StderrCapture capture;
  EXPECT_EQ(Decode("0C 03 01"), (EncodableList{true, nullptr, nullptr}));
  EXPECT_EQ(capture.GetText(), std::string(kInvalidRead) + kInvalidRead);
}

TEST(StandardCodec, GivesNullsForMissingMapEntries) {
  const StderrCapture capture;
  EXPECT_EQ(Decode("0D 03 01 02 02"),
            (EncodableMap{{true, false}, {false, nullptr}, {nullptr, nullptr}}));
  EXPECT_EQ(CountLines(capture.GetText()), 3U);
}

TEST(StandardCodec, ReadsAnEmptyTypedListAtTheEndWithoutComplaint) {
  const StderrCapture capture;
  EXPECT_EQ(Decode("0A 00"), std::vector<std::int64_t>());
  EXPECT_EQ(capture.GetText(), "");
}

// ---- Bounds

TEST(StandardCodecBounds, AllowMadeUpItemsUpToTheLimitOfAMessage) {
  const StderrCapture capture;
  EXPECT_EQ(std::get<EncodableList>(Decode("0C FF 00 00 01 00")).size(), 65536U);
  EXPECT_EQ(std::get<EncodableMap>(Decode("0D FF 00 00 01 00")).size(), 1U);
  EXPECT_EQ(std::get<std::string>(Decode("07 FF 00 00 01 00")).size(), 65536U);
  EXPECT_EQ(std::get<std::vector<std::uint8_t>>(Decode("08 FF 00 00 01 00")).size(), 65536U);
  EXPECT_EQ(std::get<std::vector<std::int32_t>>(Decode("09 FF 00 00 01 00")).size(), 65536U);
  EXPECT_EQ(std::get<std::vector<std::int64_t>>(Decode("0A FF 00 00 01 00")).size(), 65536U);
  EXPECT_EQ(std::get<std::vector<double>>(Decode("0B FF 00 00 01 00")).size(), 65536U);
  EXPECT_EQ(std::get<std::vector<float>>(Decode("0E FF 00 00 01 00")).size(), 65536U);
}

TEST(StandardCodecBounds, RefuseOneMadeUpItemMore) {
  const StderrCapture capture;
  for (const char* type : {"05", "07", "08", "09", "0A", "0B", "0C", "0D", "0E"}) {
    EXPECT_THROW(Decode(std::string(type) + " FF 01 00 01 00"), std::length_error) << type;
    EXPECT_THROW(Decode(std::string(type) + " FF FF FF FF FF"), std::length_error) << type;
  }
  EXPECT_EQ(capture.GetText(), "") << "refused before anything is read";
}

TEST(StandardCodecBounds, SayWhatIsWrong) {
  try {
    Decode("0C FF FF FF FF FF");
    FAIL() << "nothing was thrown";
  } catch (const std::length_error& error) {
    EXPECT_STREQ(
        error.what(),
        "cw: the message announces more than 65536 items that its bytes do not hold; it is "
        "damaged or hostile");
  }
}

TEST(StandardCodecBounds, CountTheMadeUpItemsOfTheWholeMessage) {
  const StderrCapture capture;
  // Two strings, 32768 bytes each, that are not there.
  EXPECT_NO_THROW(Decode("0C 02 07 FE 00 80 07 FE 00 80"));
  EXPECT_THROW(Decode("0C 02 07 FE 00 80 07 FE 01 80"), std::length_error);
  // A string and a typed list; a string and list elements; a typed list and map entries.
  EXPECT_THROW(Decode("0C 02 07 FE 00 80 09 FE 01 80"), std::length_error);
  EXPECT_NO_THROW(Decode("0C FE 00 80 07 FE 01 80"));
  EXPECT_THROW(Decode("0C FE 00 80 07 FE 02 80"), std::length_error);
  EXPECT_THROW(Decode("0C 02 08 FE 00 80 0D FE 01 80"), std::length_error);
}

TEST(StandardCodecBounds, AddUpHeadersThatEachClaimTheRest) {
  const StderrCapture capture;
  // 200 elements are there for the outer list or for the inner one, not for both.
  EXPECT_EQ(std::get<EncodableList>(Decode("0C C8 00*200")).size(), 200U);
  EXPECT_THROW(Decode("0C FE FF FF 0C FE 00 80 0C 01"), std::length_error);
  std::string nested;
  for (int i = 0; i < 100; ++i) {
    nested += "0C FF 00 00 01 00 ";
  }
  EXPECT_THROW(Decode(nested + "00*60000"), std::length_error);
  EXPECT_EQ(capture.GetText(), "");
}

TEST(StandardCodecBounds, StopBeforeTheFirstMissingItemWhenTooManyAreMissing) {
  // The list announces no more than there is, but its first element takes the bytes away.
  const StderrCapture capture;
  EXPECT_THROW(Decode("0C FF 00 00 02 00 08 FF F0 FF 01 00 00*131056"), std::length_error);
  EXPECT_EQ(capture.GetText(), "");
}

TEST(StandardCodecBounds, RefuseAMapWhoseEntriesNeedTwoBytesEach) {
  const StderrCapture capture;
  EXPECT_THROW(Decode("0D FF 00 00 02 00 00*65536"), std::length_error);
  EXPECT_EQ(capture.GetText(), "");
}

TEST(StandardCodecBounds, ReadListsAndMapsUpToTheDeepestLevel) {
  const StderrCapture capture;
  EXPECT_EQ(Decode(NestedLists(512, "00")), NestedValue(512));
  EXPECT_NO_THROW(Decode(NestedLists(512, "01 03 07 00 00 00")));
  EXPECT_THROW(Decode(NestedLists(513, "00")), std::length_error);
  EXPECT_THROW(Decode(NestedLists(512, "01 0D 00")), std::length_error);
  EXPECT_THROW(Decode(NestedLists(100000, "00")), std::length_error);
  EXPECT_EQ(capture.GetText(), "");
}

TEST(StandardCodecBounds, CountNestingInMapKeysToo) {
  std::string hex;
  for (int i = 0; i < 600; ++i) {
    hex += "0D 01 ";
  }
  EXPECT_THROW(Decode(hex + "00*600"), std::length_error);
}

TEST(StandardCodecBounds, LeaveSiblingsTheirOwnDepth) {
  EncodableList list;
  for (int i = 0; i < 5; ++i) {
    list.push_back(NestedValue(511));
  }
  const EncodableValue value(std::move(list));
  EXPECT_EQ(EncodableValue::Deserialize(value.Serialize()), value);
}

TEST(StandardCodecBounds, WriteListsAndMapsUpToTheDeepestLevel) {
  EXPECT_EQ(EncodableValue::Deserialize(NestedValue(512).Serialize()), NestedValue(512));
  EXPECT_THROW(NestedValue(513).Serialize(), std::length_error);
  EncodableValue map(1);
  for (int i = 0; i < 513; ++i) {
    map = EncodableValue(EncodableMap{{"k", map}});
  }
  EXPECT_THROW(map.Serialize(), std::length_error);
  EXPECT_EQ(map.Find("k")->Serialize().GetSize(), 512U * 5 + 5);
}

TEST(StandardCodecBounds, LeaveAStreamUsableAfterARefusal) {
  const Bytes bytes = FromHex("0C 02 0C FF FF FF FF FF 0C 02 01 02");
  ByteBufferStreamReader reader(bytes.data(), bytes.size());
  const StandardCodecSerializer& serializer = StandardCodecSerializer::GetInstance();
  EXPECT_THROW(serializer.ReadValue(&reader), std::length_error);
  EXPECT_EQ(serializer.ReadValue(&reader), (EncodableList{true, false}));
}

// ---- Streams of other kinds

// Reads from a range, but does not say how much is left.
class SilentReader : public ByteStreamReader {
 public:
  explicit SilentReader(const Bytes& bytes) : reader_(bytes.data(), bytes.size()) {}
  std::uint8_t ReadByte() override { return reader_.ReadByte(); }
  void ReadBytes(std::uint8_t* out, std::size_t length) override { reader_.ReadBytes(out, length); }
  void ReadAlignment(std::uint8_t alignment) override { reader_.ReadAlignment(alignment); }

 private:
  ByteBufferStreamReader reader_;
};

TEST(StandardCodec, ReadsFromAStreamThatDoesNotSayHowMuchIsLeft) {
  const EncodableValue value(EncodableMap{{"list", EncodableList{1, "two", 3.0}},
                                          {"bytes", std::vector<std::uint8_t>(100, 7)}});
  const Bytes bytes = Encode(value);
  SilentReader reader(bytes);
  EXPECT_EQ(StandardCodecSerializer::GetInstance().ReadValue(&reader), value);
}

TEST(StandardCodecBounds, TrustAStreamThatDoesNotSayHowMuchIsLeftUpToTheLimit) {
  const StandardCodecSerializer& serializer = StandardCodecSerializer::GetInstance();
  const Bytes allowed = FromHex("07 FF 00 00 01 00 61*65536");
  SilentReader allowed_reader(allowed);
  EXPECT_EQ(serializer.ReadValue(&allowed_reader), std::string(65536, 'a'));
  const Bytes refused = FromHex("07 FF 01 00 01 00 61*65537");
  SilentReader refused_reader(refused);
  EXPECT_THROW(serializer.ReadValue(&refused_reader), std::length_error);
}

// ---- Sizes

TEST(StandardCodecSerializer, ReadsTheSizesThatItWrites) {
  const StandardCodecSerializer& serializer = StandardCodecSerializer::GetInstance();
  const std::vector<std::pair<std::size_t, const char*>> sizes = {{0, "00"},
                                                                  {253, "FD"},
                                                                  {254, "FE FE 00"},
                                                                  {255, "FE FF 00"},
                                                                  {65535, "FE FF FF"},
                                                                  {65536, "FF 00 00 01 00"},
                                                                  {0xFFFFFFFF, "FF FF FF FF FF"}};
  for (const auto& [size, hex] : sizes) {
    quarn::Buffer buffer;
    ByteBufferStreamWriter writer(&buffer);
    serializer.WriteSize(size, &writer);
    EXPECT_EQ(ToBytes(buffer), FromHex(hex)) << size;
    ByteBufferStreamReader reader(buffer.GetData(), buffer.GetSize());
    EXPECT_EQ(serializer.ReadSize(&reader), size);
  }
}

TEST(StandardCodecSerializer, WritesTheLower32BitsOfAHugeSize) {
  quarn::Buffer buffer;
  ByteBufferStreamWriter writer(&buffer);
  StandardCodecSerializer::GetInstance().WriteSize(0x1'2345'6789, &writer);
  EXPECT_EQ(ToBytes(buffer), FromHex("FF 89 67 45 23"));
}

TEST(StandardCodecSerializer, ReadsTypedListsByTheirElementType) {
  const StandardCodecSerializer& serializer = StandardCodecSerializer::GetInstance();
  const Bytes bytes = FromHex("02 00*3 01 00 00 00 FF FF FF FF");
  ByteBufferStreamReader reader(bytes.data(), bytes.size());
  EXPECT_EQ(serializer.ReadVector<std::int32_t>(&reader), (std::vector<std::int32_t>{1, -1}));
}

template <class T>
void ExpectBackAsATypedList(const std::vector<T>& list) {
  const Bytes bytes = Encode(list);
  ByteBufferStreamReader reader(bytes.data(), bytes.size());
  reader.ReadByte();
  EXPECT_EQ(StandardCodecSerializer::GetInstance().ReadVector<T>(&reader), list);
  EXPECT_EQ(reader.BytesLeft(), 0U);
}

TEST(StandardCodecSerializer, ReadsTheTypedListsOfEachElementTypeThatItWrites) {
  ExpectBackAsATypedList<std::uint8_t>({1, 255});
  ExpectBackAsATypedList<std::int32_t>({1, INT32_MIN});
  ExpectBackAsATypedList<std::int64_t>({1, INT64_MIN});
  ExpectBackAsATypedList<double>({0.1, -1e300});
  ExpectBackAsATypedList<float>({0.5F, -1e30F});
}

// ---- Writing parts of a message

void ExpectBytesOfTheMap(const StandardCodecSerializer& serializer) {
  const EncodableValue params(EncodableList{1.0, "x", std::vector<double>{2.0}});
  const EncodableValue map(EncodableMap{{"error", EncodableMap{{"code", -5}, {"message", "m"}}},
                                        {"jsonrpc", "2.0"},
                                        {"params", params}});
  quarn::Buffer buffer;
  ByteBufferStreamWriter stream(&buffer);
  MapWriter writer(3, &serializer, &stream);
  writer.AddKey("error");
  {
    MapWriter error(2, &serializer, &stream);
    error.Add("code", -5);
    error.AddString("message", "m");
  }
  writer.AddString("jsonrpc", "2.0");
  writer.Add("params", params);
  EXPECT_EQ(buffer, map.Serialize());
}

TEST(MapWriter, WritesTheBytesOfTheMapWithoutMakingIt) {
  ExpectBytesOfTheMap(StandardCodecSerializer::GetInstance());
}

TEST(MapWriter, WritesTheSameBytesThroughAnotherSerializer) {
  const StandardCodecSerializer other;
  ExpectBytesOfTheMap(other);
}

TEST(MapWriter, CountsAsALevelOfNesting) {
  quarn::Buffer buffer;
  ByteBufferStreamWriter stream(&buffer);
  MapWriter writer(2, &StandardCodecSerializer::GetInstance(), &stream);
  EXPECT_NO_THROW(writer.Add("a", NestedValue(511)));
  EXPECT_THROW(writer.Add("b", NestedValue(512)), std::length_error);
}

// ---- A serializer with types of its own

struct Point {
  double x = 0;
  double y = 0;
};

// A value with a name in front; shows nested values in a type of one's own.
struct Labelled {
  std::string label;
  EncodableValue content;
};

class ShapeSerializer : public StandardCodecSerializer {
 public:
  void WriteValue(const EncodableValue& value, ByteStreamWriter* stream) const override {
    const auto* custom = std::get_if<CustomEncodableValue>(&value);
    if (custom == nullptr) {
      StandardCodecSerializer::WriteValue(value, stream);
    } else if (const auto* point = custom->GetIf<Point>()) {
      stream->WriteByte(kPoint);
      WriteValue(point->x, stream);
      WriteValue(point->y, stream);
    } else if (const auto* labelled = custom->GetIf<Labelled>()) {
      const NestingScope scope(stream);
      stream->WriteByte(kLabelled);
      WriteString(labelled->label, stream);
      WriteValue(labelled->content, stream);
    } else {
      StandardCodecSerializer::WriteValue(value, stream);
    }
  }

  EncodableValue ReadValueOfType(std::uint8_t type, ByteStreamReader* stream) const override {
    if (type == kPoint) {
      Point point;
      point.x = ReadValue(stream).AsDouble().value_or(0);
      point.y = ReadValue(stream).AsDouble().value_or(0);
      return CustomEncodableValue(point);
    }
    if (type == kLabelled) {
      EncodableValue label = ReadValue(stream);
      return CustomEncodableValue(
          Labelled{std::get<std::string>(std::move(label)), ReadValue(stream)});
    }
    if (type == kEndless) {
      while (true) {
        ReadValue(stream);
      }
    }
    return StandardCodecSerializer::ReadValueOfType(type, stream);
  }

 private:
  static constexpr std::uint8_t kPoint = 128;
  static constexpr std::uint8_t kLabelled = 129;
  static constexpr std::uint8_t kEndless = 130;
};

const ShapeSerializer& Shapes() {
  static const ShapeSerializer serializer;
  return serializer;
}

TEST(DerivedSerializer, CarriesTypesOfItsOwn) {
  const StandardMessageCodec& codec = StandardMessageCodec::GetInstance(&Shapes());
  const quarn::Buffer bytes = codec.EncodeMessage(CustomEncodableValue(Point{1.0, -2.5}));
  EXPECT_EQ(ToBytes(bytes), FromHex("80 06 00*6 00*6 F0 3F 06 00*7 00*6 04 C0"));
  const auto decoded = codec.DecodeMessage(bytes);
  const Point* point = std::get<CustomEncodableValue>(*decoded).GetIf<Point>();
  ASSERT_NE(point, nullptr);
  EXPECT_EQ(point->x, 1.0);
  EXPECT_EQ(point->y, -2.5);
}

TEST(DerivedSerializer, MeetsItsTypesInsideListsMapsAndEachOther) {
  const StandardMessageCodec& codec = StandardMessageCodec::GetInstance(&Shapes());
  const EncodableValue point(CustomEncodableValue(Point{3, 4}));
  const EncodableValue labelled(
      CustomEncodableValue(Labelled{"corner", EncodableValue(EncodableMap{{"at", point}})}));
  const auto decoded =
      codec.DecodeMessage(codec.EncodeMessage(EncodableValue(EncodableList{1, labelled, "end"})));
  ASSERT_EQ(decoded->AsList()->size(), 3U);
  EXPECT_EQ(*decoded->At(2), "end");
  const auto* outer = std::get<CustomEncodableValue>(*decoded->At(1)).GetIf<Labelled>();
  EXPECT_EQ(outer->label, "corner");
  EXPECT_EQ(outer->content.Find<CustomEncodableValue>("at")->GetIf<Point>()->y, 4);
}

// `levels` values of a type of one's own in each other, the innermost around a null.
EncodableValue NestedLabels(std::size_t levels) {
  EncodableValue value;
  for (std::size_t i = 0; i < levels; ++i) {
    value = CustomEncodableValue(Labelled{"", std::move(value)});
  }
  return value;
}

TEST(DerivedSerializer, WritesItsOwnTypesUpToTheDeepestLevelThatIsRead) {
  const StandardMessageCodec& codec = StandardMessageCodec::GetInstance(&Shapes());
  const quarn::Buffer deepest = codec.EncodeMessage(NestedLabels(kMaxNesting));
  EXPECT_EQ(codec.EncodeMessage(*codec.DecodeMessage(deepest)), deepest);
  EXPECT_THROW(codec.EncodeMessage(NestedLabels(kMaxNesting + 1)), std::length_error);
}

TEST(DerivedSerializer, CountsTheLevelsOfItsOwnTypesAndOfListsTogether) {
  const StandardMessageCodec& codec = StandardMessageCodec::GetInstance(&Shapes());
  EXPECT_NO_THROW(codec.EncodeMessage(EncodableList{NestedLabels(kMaxNesting - 1)}));
  EXPECT_THROW(codec.EncodeMessage(EncodableList{NestedLabels(kMaxNesting)}), std::length_error);
}

TEST(DerivedSerializer, KeepsToTheDepthInItsOwnTypes) {
  Bytes bytes;
  for (int i = 0; i < 100000; ++i) {
    bytes.insert(bytes.end(), {129, 7, 0});
  }
  EXPECT_THROW(
      StandardMessageCodec::GetInstance(&Shapes()).DecodeMessage(bytes.data(), bytes.size()),
      std::length_error);
}

TEST(DerivedSerializer, CannotReadEndlesslyPastTheEnd) {
  const StderrCapture capture;
  const std::uint8_t endless = 130;
  EXPECT_THROW(StandardMessageCodec::GetInstance(&Shapes()).DecodeMessage(&endless, 1),
               std::length_error);
  EXPECT_EQ(CountLines(capture.GetText()), kMaxReportedFaults + 1);
}

TEST(DerivedSerializerDeathTest, LeavesForeignCustomValuesToTheAssertion) {
  const EncodableValue unknown(CustomEncodableValue(1));
  EXPECT_DEATH(StandardMessageCodec::GetInstance(&Shapes()).EncodeMessage(unknown),
               "StandardCodecSerializer cannot write a CustomEncodableValue");
}

// ---- The message codec

TEST(StandardMessageCodec, GivesNoValueForNoBytes) {
  const StandardMessageCodec& codec = StandardMessageCodec::GetInstance(nullptr);
  const std::uint8_t byte = 0;
  EXPECT_EQ(codec.DecodeMessage(nullptr, 3), nullptr);
  EXPECT_EQ(codec.DecodeMessage(&byte, 0), nullptr);
  EXPECT_EQ(codec.DecodeMessage(quarn::Buffer()), nullptr);
  EXPECT_NE(codec.DecodeMessage(&byte, 1), nullptr);
}

TEST(StandardMessageCodec, IgnoresTrailingBytes) { EXPECT_EQ(Decode("01 FF FF"), true); }

TEST(StandardMessageCodec, IsSharedPerSerializer) {
  const StandardMessageCodec& codec = StandardMessageCodec::GetInstance(nullptr);
  EXPECT_EQ(&codec, &StandardMessageCodec::GetInstance());
  EXPECT_EQ(&codec, &StandardMessageCodec::GetInstance(&StandardCodecSerializer::GetInstance()));
  EXPECT_NE(&codec, &StandardMessageCodec::GetInstance(&Shapes()));
  EXPECT_EQ(&StandardMessageCodec::GetInstance(&Shapes()),
            &StandardMessageCodec::GetInstance(&Shapes()));
}

// Has threads ask for the codecs of many serializers at once, and expects all to get the same.
template <class Codec>
void ExpectOneCodecForEachSerializer() {
  constexpr std::size_t kSerializers = 3000;
  static const std::deque<StandardCodecSerializer> serializers(kSerializers);
  std::vector<std::vector<const Codec*>> found(4);
  std::atomic<bool> begin{false};
  std::vector<std::thread> threads;
  threads.reserve(found.size());
  for (auto& codecs : found) {
    threads.emplace_back([&codecs, &begin] {
      while (!begin) {
      }
      for (const StandardCodecSerializer& serializer : serializers) {
        codecs.push_back(&Codec::GetInstance(&serializer));
      }
    });
  }
  begin = true;
  for (std::thread& thread : threads) {
    thread.join();
  }
  for (const auto& codecs : found) {
    EXPECT_EQ(codecs, found.front());
  }
  const std::set<const Codec*> distinct(found.front().begin(), found.front().end());
  EXPECT_EQ(distinct.size(), kSerializers);
}

TEST(StandardMessageCodec, IsMadeOnceForEachSerializerWhoeverAsksAtOnce) {
  ExpectOneCodecForEachSerializer<StandardMessageCodec>();
}

TEST(StandardMethodCodec, IsMadeOnceForEachSerializerWhoeverAsksAtOnce) {
  ExpectOneCodecForEachSerializer<StandardMethodCodec>();
}

TEST(StandardMessageCodec, IsTheSameForAllThreads) {
  static const ShapeSerializer fresh;
  std::vector<const StandardMessageCodec*> codecs(8);
  std::vector<std::thread> threads;
  threads.reserve(codecs.size());
  for (std::size_t i = 0; i < codecs.size(); ++i) {
    threads.emplace_back([&codecs, i] {
      codecs[i] = &StandardMessageCodec::GetInstance(&fresh);
      RandomValues values(i);
      for (int round = 0; round < 50; ++round) {
        const EncodableValue value = values.Next();
        EXPECT_EQ(*codecs[i]->DecodeMessage(codecs[i]->EncodeMessage(value)), value);
      }
    });
  }
  for (std::thread& thread : threads) {
    thread.join();
  }
  for (const StandardMessageCodec* codec : codecs) {
    EXPECT_EQ(codec, codecs.front());
  }
}

}  // namespace
}  // namespace cw
