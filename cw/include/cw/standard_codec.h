// The standard serializer: values to bytes and back, one value at a time.
#ifndef CW_STANDARD_CODEC_H
#define CW_STANDARD_CODEC_H

#include <cw/byte_streams.h>
#include <cw/encodable_value.h>
#include <quarn/export.h>

#include <cstddef>
#include <cstdint>
#include <string_view>
#include <vector>

namespace cw {

// The first byte of every encoded value. 15 to 127 are reserved for the format; derived serializers
// use 128 and above for types of their own.
enum class TypeByte : std::uint8_t {
  Null = 0,
  True = 1,
  False = 2,
  Int32 = 3,
  Int64 = 4,
  LargeInt = 5,  // a number as text; read as a string, never written
  Double = 6,
  String = 7,
  ByteList = 8,
  Int32List = 9,
  Int64List = 10,
  DoubleList = 11,
  List = 12,
  Map = 13,
  FloatList = 14,
};

// Writes and reads values in the standard format. Has no state: any thread, at any time.
//
// To carry types of your own, derive: override WriteValue for the CustomEncodableValues that you
// know and ReadValueOfType for their type bytes, and pass everything else to this class. Nested
// values come back to the overrides. Hand the derived object to the GetInstance of a codec.
//
// A type that holds further values is a level of nesting like a list: open a NestingScope around
// writing it, so that what is too deep to be read throws std::length_error instead of exhausting
// the stack. Reading counts by itself.
//
// Every operation that reads throws std::length_error for input beyond codec_limits.h.
class TARV_EXPORT StandardCodecSerializer {
 public:
  StandardCodecSerializer() = default;
  StandardCodecSerializer(const StandardCodecSerializer&) = delete;
  StandardCodecSerializer& operator=(const StandardCodecSerializer&) = delete;
  virtual ~StandardCodecSerializer() = default;

  // Writes the value's type byte and payload. Here, a CustomEncodableValue stops the process by an
  // assertion. Throws std::length_error when lists and maps nest deeper than kMaxNesting.
  virtual void WriteValue(const EncodableValue& value, ByteStreamWriter* stream) const;

  // Reads the payload that belongs to `type`. An unknown type gives null, after a line on standard
  // error.
  virtual EncodableValue ReadValueOfType(std::uint8_t type, ByteStreamReader* stream) const;

  // The serializer of the standard types; lives as long as the process.
  static const StandardCodecSerializer& GetInstance();

  // Reads a type byte and its payload.
  EncodableValue ReadValue(ByteStreamReader* stream) const;

  // Sizes take one byte up to 253, else three or five. Above 32 bits, the lower 32 are written.
  std::size_t ReadSize(ByteStreamReader* stream) const;
  void WriteSize(std::size_t size, ByteStreamWriter* stream) const;

  // Reads the payload of a typed list: its size, padding to the size of T, the elements as a block.
  // T is std::uint8_t, std::int32_t, std::int64_t, double or float.
  template <class T>
  std::vector<T> ReadVector(ByteStreamReader* stream) const;

  // Writes a text as a string value, without making an EncodableValue of it.
  void WriteString(std::string_view text, ByteStreamWriter* stream) const;
};

// Writes a map straight into a stream, entry by entry, so that a message around a large payload is
// encoded without copying the payload into an EncodableMap first. The caller adds exactly `size`
// entries, in the order of their keys. Throws std::length_error past kMaxNesting.
class TARV_EXPORT MapWriter {
 public:
  // Both stay the caller's and must outlive the writer.
  MapWriter(std::size_t size, const StandardCodecSerializer* serializer, ByteStreamWriter* stream);

  void Add(std::string_view key, const EncodableValue& value);
  void AddString(std::string_view key, std::string_view text);
  // Writes the key alone. The caller writes its value to the stream, for example with another
  // MapWriter that ends before this one goes on.
  void AddKey(std::string_view key);

 private:
  const StandardCodecSerializer* serializer_;
  ByteStreamWriter* stream_;
  NestingScope scope_;
};

}  // namespace cw

#endif  // CW_STANDARD_CODEC_H
