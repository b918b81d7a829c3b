#include <cw/standard_codec.h>

#include "value_writer.h"

namespace cw {

MapWriter::MapWriter(std::size_t size, const StandardCodecSerializer* serializer,
                     ByteStreamWriter* stream)
    : serializer_(serializer), stream_(stream), scope_(stream) {
  internal::WriteToSink(serializer, stream,
                        [size](auto& sink) { internal::WriteHeader(TypeByte::Map, size, sink); });
}

void MapWriter::AddKey(std::string_view key) { serializer_->WriteString(key, stream_); }

void MapWriter::Add(std::string_view key, const EncodableValue& value) {
  AddKey(key);
  serializer_->WriteValue(value, stream_);
}

void MapWriter::AddString(std::string_view key, std::string_view text) {
  AddKey(key);
  serializer_->WriteString(text, stream_);
}

}  // namespace cw
