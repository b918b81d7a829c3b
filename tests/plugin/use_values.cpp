// Values and codecs, with a serializer of the plug-in's own.
#include <cw/encodable_value.h>
#include <cw/method_codec.h>
#include <cw/reply_manager.h>
#include <cw/standard_codec.h>
#include <cw/standard_message_codec.h>

#include <sstream>

#include "check.h"

namespace plugin {
namespace {

using cw::EncodableMap;
using cw::EncodableValue;

struct Point {
  std::int32_t x, y;
};
struct Samples {
  std::size_t bytes, ints, longs, doubles, floats;
};

// A point is a map; a block of samples is each kind of typed list.
class PointSerializer : public cw::StandardCodecSerializer {
 public:
  static constexpr std::uint8_t kPoint = 128;
  static constexpr std::uint8_t kSamples = 129;

  void WriteValue(const EncodableValue& value, cw::ByteStreamWriter* stream) const override {
    const auto* const custom = std::get_if<cw::CustomEncodableValue>(&value);
    if (custom != nullptr && custom->GetIf<Point>() != nullptr) {
      WritePoint(*custom->GetIf<Point>(), stream);
    } else if (custom != nullptr) {
      stream->WriteByte(kSamples);
      for (int list = 0; list < 5; ++list) {
        WriteSize(0, stream);
        stream->WriteAlignment(8);
      }
    } else {
      StandardCodecSerializer::WriteValue(value, stream);
    }
  }

  EncodableValue ReadValueOfType(std::uint8_t type, cw::ByteStreamReader* stream) const override {
    if (type == kPoint) {
      const auto x = std::get<std::int32_t>(ReadValue(stream));
      return cw::CustomEncodableValue(Point{x, static_cast<std::int32_t>(ReadSize(stream))});
    }
    if (type == kSamples) {
      return cw::CustomEncodableValue(ReadSamples(stream));
    }
    return StandardCodecSerializer::ReadValueOfType(type, stream);
  }

 private:
  void WritePoint(const Point& point, cw::ByteStreamWriter* stream) const {
    const cw::NestingScope scope(stream);
    stream->WriteByte(kPoint);
    WriteValue(point.x, stream);
    WriteSize(static_cast<std::size_t>(point.y), stream);
  }

  Samples ReadSamples(cw::ByteStreamReader* stream) const {
    Samples samples{};
    samples.bytes = Read<std::uint8_t>(stream);
    samples.ints = Read<std::int32_t>(stream);
    samples.longs = Read<std::int64_t>(stream);
    samples.doubles = Read<double>(stream);
    samples.floats = Read<float>(stream);
    return samples;
  }

  template <class T>
  std::size_t Read(cw::ByteStreamReader* stream) const {
    const std::size_t size = ReadVector<T>(stream).size();
    stream->ReadAlignment(8);
    return size;
  }
};

void UseSerializers() {
  static const PointSerializer kSerializer;
  const auto& codec = cw::StandardMessageCodec::GetInstance(&kSerializer);
  const auto bytes = codec.EncodeMessage(cw::EncodableList{cw::CustomEncodableValue(Point{3, 4}),
                                                           cw::CustomEncodableValue(Samples{})});
  const auto decoded = codec.DecodeMessage(bytes.GetData(), bytes.GetSize());
  const auto* const point = std::get_if<cw::CustomEncodableValue>(decoded->At(0));
  PLUGIN_CHECK(point != nullptr && point->GetIf<Point>()->y == 4);
  const auto* const samples = std::get_if<cw::CustomEncodableValue>(decoded->At(1));
  PLUGIN_CHECK(samples != nullptr && samples->GetIf<Samples>() != nullptr);
}

void UseStreams() {
  const auto& serializer = cw::StandardCodecSerializer::GetInstance();
  quarn::Buffer buffer;
  cw::ByteBufferStreamWriter writer(&buffer);
  serializer.WriteString("text", &writer);
  serializer.WriteValue(EncodableValue(1.5), &writer);
  cw::ByteBufferStreamReader reader(buffer.GetData(), buffer.GetSize());
  PLUGIN_CHECK(*serializer.ReadValue(&reader).AsString() == "text");
  PLUGIN_CHECK(serializer.ReadValue(&reader).AsDouble() == 1.5);
  PLUGIN_CHECK(reader.ReadByte() == 0);  // past the end, which is reported
}

void UseMapWriter() {
  quarn::Buffer buffer;
  cw::ByteBufferStreamWriter stream(&buffer);
  cw::MapWriter writer(3, &cw::StandardCodecSerializer::GetInstance(), &stream);
  writer.Add("a", EncodableValue(1));
  writer.AddString("b", "text");
  writer.AddKey("c");
  cw::StandardCodecSerializer::GetInstance().WriteValue({}, &stream);
  PLUGIN_CHECK(*EncodableValue::Deserialize(buffer).Find("b")->AsString() == "text");
}

void UseValue() {
  EncodableValue value(EncodableMap{{"a", true}, {"b", std::int64_t{1} << 40}});
  const EncodableValue copy(value);
  EncodableValue other;
  other = copy;
  EncodableValue moved(std::move(other));
  value = std::move(moved);
  PLUGIN_CHECK(value == copy && value <= copy && !(value < copy));
  PLUGIN_CHECK(value.Find("a")->AsBool() == true);
  PLUGIN_CHECK(cw::Find(*value.AsMap(), "b")->AsInt64() == std::int64_t{1} << 40);
  std::ostringstream text;
  text << value;
  PLUGIN_CHECK(!text.str().empty());
  const quarn::Buffer bytes = value.Serialize();
  PLUGIN_CHECK(EncodableValue::Deserialize(bytes) == value);
  PLUGIN_CHECK(EncodableValue::Deserialize(bytes.GetData(), bytes.GetSize()) == value);
  QuarnBufferView view{};
  PLUGIN_CHECK(bytes.ToCAPI(&view, sizeof(view)) == QUARN_RESULT_SUCCESS);
  PLUGIN_CHECK(EncodableValue::Deserialize(&view) == value);
}

void UseMethodCodec() {
  const auto& codec = cw::StandardMethodCodec::GetInstance();
  const auto call = codec.EncodeMethodCall({"add", std::make_unique<EncodableValue>(1)});
  PLUGIN_CHECK(codec.DecodeMethodCall(call)->GetMethodName() == "add");
  int outcomes = 0;
  cw::MethodResultFunctions<EncodableValue> result(
      [&outcomes](const auto*) { ++outcomes; },
      [&outcomes](const auto&, const auto&, const auto*) { outcomes += 10; }, nullptr);
  const auto success = codec.EncodeSuccessEnvelope();
  const auto error = codec.EncodeErrorEnvelope("code", "text");
  codec.DecodeAndProcessResponseEnvelope(success.GetData(), success.GetSize(), &result);
  codec.DecodeAndProcessResponseEnvelope(error.GetData(), error.GetSize(), &result);
  PLUGIN_CHECK(outcomes == 11);
}

void UseReplies() {
  int replies = 0;
  cw::internal::ReplyManager reply([&replies](const std::uint8_t*, std::size_t) { ++replies; });
  reply.SendResponseData(nullptr);
  PLUGIN_CHECK(replies == 1);
}

}  // namespace

void UseValues() {
  UseSerializers();
  UseStreams();
  UseMapWriter();
  UseValue();
  UseMethodCodec();
  UseReplies();
}

}  // namespace plugin
