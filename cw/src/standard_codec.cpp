#include <cw/standard_codec.h>

#include "known_stream.h"
#include "value_reader.h"
#include "value_writer.h"

namespace cw {

const StandardCodecSerializer& StandardCodecSerializer::GetInstance() {
  // Never destroyed: other objects may still encode while the process exits.
  static const auto* const instance = new StandardCodecSerializer;
  return *instance;
}

void StandardCodecSerializer::WriteSize(std::size_t size, ByteStreamWriter* stream) const {
  internal::AnySink sink(this, stream);
  internal::WriteSizeTo(size, sink);
}

std::size_t StandardCodecSerializer::ReadSize(ByteStreamReader* stream) const {
  return internal::ReadSizeFrom(stream);
}

void StandardCodecSerializer::WriteString(std::string_view text, ByteStreamWriter* stream) const {
  internal::WriteToSink(this, stream, [text](auto& sink) { internal::WriteText(text, sink); });
}

void StandardCodecSerializer::WriteValue(const EncodableValue& value,
                                         ByteStreamWriter* stream) const {
  internal::WriteToSink(
      this, stream, [&value](auto& sink) { internal::WriteValueTo(value, sink); }, value);
}

EncodableValue StandardCodecSerializer::ReadValue(ByteStreamReader* stream) const {
  // A derived serializer reads the values inside its own types here.
  if (stream->GetBudget().IsInsideValue() && stream->BytesLeft() == 0) {
    stream->GetBudget().MakeUp(1);
  }
  return internal::ReadItem(internal::AnySource{this, stream});
}

template <class T>
std::vector<T> StandardCodecSerializer::ReadVector(ByteStreamReader* stream) const {
  return internal::ReadTypedList<T>(stream);
}

template std::vector<std::uint8_t> StandardCodecSerializer::ReadVector(ByteStreamReader*) const;
template std::vector<std::int32_t> StandardCodecSerializer::ReadVector(ByteStreamReader*) const;
template std::vector<std::int64_t> StandardCodecSerializer::ReadVector(ByteStreamReader*) const;
template std::vector<double> StandardCodecSerializer::ReadVector(ByteStreamReader*) const;
template std::vector<float> StandardCodecSerializer::ReadVector(ByteStreamReader*) const;

EncodableValue StandardCodecSerializer::ReadValueOfType(std::uint8_t type,
                                                        ByteStreamReader* stream) const {
  if (auto* const plain = internal::AsKnown<ByteBufferStreamReader>(this, stream)) {
    return internal::DirectSource<ByteBufferStreamReader>{plain}.ReadPayload(type);
  }
  return internal::ReadPayloadFrom(type, internal::AnySource{this, stream});
}

}  // namespace cw
