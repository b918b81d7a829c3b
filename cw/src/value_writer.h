// Writes values to the sinks of a message.
#ifndef CW_SRC_VALUE_WRITER_H
#define CW_SRC_VALUE_WRITER_H

#include <cw/internal/base64_streams.h>
#include <cw/standard_codec.h>

#include <array>
#include <cstring>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

#include "assert.h"
#include "known_stream.h"
#include "size_bytes.h"
#include "value_sinks.h"

namespace cw::internal {

template <class Sink>
void WriteType(TypeByte type, Sink& sink) {
  sink.PutByte(static_cast<std::uint8_t>(type));
}

// A number behind a byte that says what it is.
template <class T>
std::array<std::uint8_t, 1 + sizeof(T)> Tagged(std::uint8_t tag, T number) {
  std::array<std::uint8_t, 1 + sizeof(T)> bytes;
  bytes[0] = tag;
  std::memcpy(&bytes[1], &number, sizeof(T));
  return bytes;
}

template <class T, class Sink>
void WriteInteger(TypeByte type, T number, Sink& sink) {
  sink.PutArray(Tagged(static_cast<std::uint8_t>(type), number));
}

template <class Sink>
void WriteSizeTo(std::size_t size, Sink& sink) {
  if (size < kSizeIs16Bit) {
    sink.PutByte(static_cast<std::uint8_t>(size));
  } else if (size <= 0xFFFF) {
    sink.PutArray(Tagged(kSizeIs16Bit, static_cast<std::uint16_t>(size)));
  } else {
    sink.PutArray(Tagged(kSizeIs32Bit, static_cast<std::uint32_t>(size)));
  }
}

template <class Sink>
void WriteHeader(TypeByte type, std::size_t size, Sink& sink) {
  WriteType(type, sink);
  WriteSizeTo(size, sink);
}

template <class Sink>
inline void WriteText(std::string_view text, Sink& sink) {
  if (sink.PutShortText(text)) {
    return;
  }
  WriteHeader(TypeByte::String, text.size(), sink);
  sink.PutBytes(reinterpret_cast<const std::uint8_t*>(text.data()), text.size());
}

template <class T, class Sink>
void WriteAligned(const T* items, std::size_t count, Sink& sink) {
  if constexpr (sizeof(T) > 1) {
    sink.Align(sizeof(T));
  }
  sink.PutBytes(reinterpret_cast<const std::uint8_t*>(items), count * sizeof(T));
}

template <class T, class Sink>
void WriteTypedList(TypeByte type, const std::vector<T>& list, Sink& sink) {
  WriteHeader(type, list.size(), sink);
  if (!list.empty()) {
    WriteAligned(list.data(), list.size(), sink);
  }
}

// Writes the value that std::visit finds, the values inside as the sink wants them.
template <class Sink>
struct ValueWriter {
  Sink& sink;

  void operator()(std::monostate /*null*/) const { WriteType(TypeByte::Null, sink); }
  void operator()(bool flag) const { WriteType(flag ? TypeByte::True : TypeByte::False, sink); }
  void operator()(std::int32_t number) const { WriteInteger(TypeByte::Int32, number, sink); }
  void operator()(std::int64_t number) const { WriteInteger(TypeByte::Int64, number, sink); }
  void operator()(double number) const { sink.PutDouble(number); }
  void operator()(const std::string& text) const { WriteText(text, sink); }
  void operator()(const std::vector<std::uint8_t>& list) const {
    WriteTypedList(TypeByte::ByteList, list, sink);
  }
  void operator()(const std::vector<std::int32_t>& list) const {
    WriteTypedList(TypeByte::Int32List, list, sink);
  }
  void operator()(const std::vector<std::int64_t>& list) const {
    WriteTypedList(TypeByte::Int64List, list, sink);
  }
  void operator()(const std::vector<double>& list) const {
    WriteTypedList(TypeByte::DoubleList, list, sink);
  }
  void operator()(const std::vector<float>& list) const {
    WriteTypedList(TypeByte::FloatList, list, sink);
  }

  void operator()(const EncodableList& list) const {
    const NestingScope scope(sink.GetStream());
    WriteHeader(TypeByte::List, list.size(), sink);
    for (const EncodableValue& item : list) {
      sink.PutValue(item);
    }
  }

  void operator()(const EncodableMap& map) const {
    const NestingScope scope(sink.GetStream());
    WriteHeader(TypeByte::Map, map.size(), sink);
    for (const auto& [key, value] : map) {
      sink.PutValue(key);
      sink.PutValue(value);
    }
  }

  void operator()(const CustomEncodableValue& /*custom*/) const {
    constexpr bool kIsStandardType = false;
    CW_ASSERT(kIsStandardType,
              "StandardCodecSerializer cannot write a CustomEncodableValue; derive a serializer, "
              "write the value in its WriteValue, and use the codec of that serializer.");
  }
};

template <class Sink>
void WriteValueTo(const EncodableValue& value, Sink& sink) {
  // The commonest kinds first; the others go through a table of functions.
  const ValueWriter<Sink> writer{sink};
  if (const auto* const text = std::get_if<std::string>(&value)) {
    writer(*text);
  } else if (const auto* const number = std::get_if<std::int32_t>(&value)) {
    writer(*number);
  } else if (const auto* const ratio = std::get_if<double>(&value)) {
    writer(*ratio);
  } else if (value.valueless_by_exception()) {
    WriteType(TypeByte::Null, sink);
  } else {
    std::visit(writer, static_cast<const internal::EncodableVariant&>(value));
  }
}

template <class Gatherer>
void DirectSink<Gatherer>::PutValue(const EncodableValue& value) {
  WriteValueTo(value, *this);
}

// Calls `write` with the sink for the stream. `value` is what is written, if it is a value.
template <class Write, class... Value>
void WriteToSink(const StandardCodecSerializer* serializer, ByteStreamWriter* stream,
                 const Write& write, const Value&... value) {
  if (auto* const text = AsKnown<Base64StreamWriter>(serializer, stream)) {
    DirectSink sink(stream, &text->GetEncoder());
    write(sink);
  } else if (auto* const plain = AsKnown<ByteBufferStreamWriter>(serializer, stream)) {
    BufferGatherer gatherer(plain->GetBuffer(), value...);
    DirectSink sink(stream, &gatherer);
    write(sink);
    gatherer.Flush();
  } else {
    AnySink sink(serializer, stream);
    write(sink);
  }
}

}  // namespace cw::internal

#endif  // CW_SRC_VALUE_WRITER_H
