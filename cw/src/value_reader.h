// Reads values from the streams of a message.
#ifndef CW_SRC_VALUE_READER_H
#define CW_SRC_VALUE_READER_H

#include <cw/internal/base64_streams.h>
#include <cw/standard_codec.h>
#include <quarn/internal/large_memory.h>

#include <algorithm>
#include <array>
#include <cstring>
#include <string>
#include <type_traits>
#include <utility>
#include <vector>

#include "size_bytes.h"

namespace cw::internal {

// The reasons why decoding keeps to its memory bound: an item that is made up takes a place in a
// list at most (and, while a list still waits for such items, an element of a typed list beside
// it), and a map entry (two bytes at least) a tree node with a key and a value.
inline constexpr std::size_t kTreeNodeOverhead = 4 * sizeof(void*);
static_assert(kMaxMadeUpItems * (sizeof(EncodableValue) + sizeof(double)) <= kDecodeFixedMemory);
static_assert(2 * sizeof(EncodableValue) + kTreeNodeOverhead <=
              2 * (sizeof(EncodableValue) + kDecodeOverheadPerByte));
// Lists grow and maps take entries without copying.
static_assert(std::is_nothrow_move_constructible_v<EncodableValue>);

inline constexpr std::size_t kMapEntryMinSize = 2;  // the type bytes of key and value
inline constexpr std::size_t kListItemMinSize = 1;

// A value that is being read, for the budget.
class ValueScope {
 public:
  explicit ValueScope(DecodeBudget* budget) : budget_(budget) { budget_->EnterValue(); }
  ~ValueScope() { budget_->LeaveValue(); }
  ValueScope(const ValueScope&) = delete;
  ValueScope& operator=(const ValueScope&) = delete;

 private:
  DecodeBudget* budget_;
};

// The items that a list or map announces, for the budget; withdraws what an exception leaves
// unread.
template <class Stream>
class AnnouncedItems {
 public:
  AnnouncedItems(std::size_t count, std::size_t item_size, Stream* stream)
      : stream_(stream), item_size_(item_size), left_(count) {
    stream_->GetBudget().CheckContainer();
    stream_->GetBudget().Announce(count, item_size, stream_->BytesLeft());
  }
  ~AnnouncedItems() { stream_->GetBudget().Withdraw(left_); }
  AnnouncedItems(const AnnouncedItems&) = delete;
  AnnouncedItems& operator=(const AnnouncedItems&) = delete;

  // Begins the next item, if there is one.
  bool Next() {
    if (left_ == 0) {
      return false;
    }
    stream_->GetBudget().Begin(item_size_, stream_->BytesLeft());
    --left_;
    return true;
  }

 private:
  Stream* stream_;
  std::size_t item_size_;
  std::size_t left_;
};

// Accounts for a block that the stream is asked for: the reader copies all of it or nothing.
template <class Stream>
void ClaimBlock(std::size_t count, std::size_t item_size, Stream* stream) {
  if (count > stream->BytesLeft() / item_size) {
    stream->GetBudget().MakeUp(count);
  }
}

template <class T, class Stream>
T ReadNumber(Stream* stream) {
  T number = 0;
  stream->ReadBytes(reinterpret_cast<std::uint8_t*>(&number), sizeof(number));
  return number;
}

template <class Stream>
inline std::size_t ReadSizeFrom(Stream* stream) {
  const std::uint8_t first = stream->ReadByte();
  if (first == kSizeIs16Bit) {
    return ReadNumber<std::uint16_t>(stream);
  }
  if (first == kSizeIs32Bit) {
    return ReadNumber<std::uint32_t>(stream);
  }
  return first;
}

// A text of `length` bytes that come next in the stream; zeros where there are fewer.
inline EncodableValue ReadChars(std::size_t length, ByteStreamReader* stream) {
  std::string text(length, '\0');
  stream->ReadBytes(reinterpret_cast<std::uint8_t*>(text.data()), length);
  return EncodableValue(std::move(text));
}

// The same from a buffer: made of the bytes that lie there, and not filled with zeros before.
inline EncodableValue ReadChars(std::size_t length, ByteBufferStreamReader* stream) {
  const std::uint8_t* const bytes = stream->TakeBytes(length);
  if (bytes == nullptr) {
    return EncodableValue(std::in_place_type<std::string>, length, '\0');
  }
  return EncodableValue(std::in_place_type<std::string>, reinterpret_cast<const char*>(bytes),
                        length);
}

// Appends bytes that come next in the text of a message to a list of bytes, or to a text.
template <class Byte, class Bytes>
void AppendBytes(std::size_t length, Base64StreamReader* stream, Bytes& bytes) {
  if (length > stream->BytesLeft()) {
    throw Base64StreamReader::GiveUp();
  }
  bytes.reserve(length);
  quarn::ExpectFilling(bytes.data(), length);
  while (length != 0) {
    const Base64StreamReader::Piece piece = stream->TakeUpTo(length);
    const auto* const data = reinterpret_cast<const Byte*>(piece.data);
    bytes.insert(bytes.end(), data, data + piece.size);
    length -= piece.size;
  }
}

inline EncodableValue ReadChars(std::size_t length, Base64StreamReader* stream) {
  EncodableValue value(std::in_place_type<std::string>);
  AppendBytes<char>(length, stream, *std::get_if<std::string>(&value));
  return value;
}

template <class Stream>
inline EncodableValue ReadText(Stream* stream) {
  const std::size_t length = ReadSizeFrom(stream);
  ClaimBlock(length, 1, stream);
  return ReadChars(length, stream);
}

// A list of `count` items that come next in the stream; zeros where there are fewer.
template <class T>
std::vector<T> ReadBlock(std::size_t count, ByteStreamReader* stream) {
  std::vector<T> list(count);
  stream->ReadBytes(reinterpret_cast<std::uint8_t*>(list.data()), count * sizeof(T));
  return list;
}

// The same from a buffer, not filled with zeros before where the items lie as the CPU wants them.
template <class T>
std::vector<T> ReadBlock(std::size_t count, ByteBufferStreamReader* stream) {
  const std::uint8_t* const bytes = stream->TakeBytes(count * sizeof(T));
  if (bytes == nullptr) {
    return std::vector<T>(count);
  }
  if (reinterpret_cast<std::uintptr_t>(bytes) % alignof(T) == 0) {
    const auto* const items = reinterpret_cast<const T*>(bytes);
    return std::vector<T>(items, items + count);
  }
  std::vector<T> list(count);
  std::memcpy(list.data(), bytes, count * sizeof(T));
  return list;
}

// Not a part of the function that reads a value, which calls itself for every level of nesting: the
// piece would be on the stack as many times.
template <class T>
[[gnu::noinline]] std::vector<T> ReadBlock(std::size_t count, Base64StreamReader* stream) {
  std::vector<T> list;
  if constexpr (sizeof(T) == 1) {
    AppendBytes<T>(count, stream, list);
  } else {
    if (count > stream->BytesLeft() / sizeof(T)) {
      throw Base64StreamReader::GiveUp();
    }
    list.reserve(count);
    std::array<T, Base64StreamReader::kLongestTaken / sizeof(T)> piece;
    while (list.size() != count) {
      const std::size_t next = std::min(piece.size(), count - list.size());
      stream->ReadBytes(reinterpret_cast<std::uint8_t*>(piece.data()), next * sizeof(T));
      list.insert(list.end(), piece.data(), piece.data() + next);
    }
  }
  return list;
}

template <class T, class Stream>
std::vector<T> ReadTypedList(Stream* stream) {
  const std::size_t size = ReadSizeFrom(stream);
  if (size == 0) {
    if constexpr (sizeof(T) > 1) {
      stream->ReadEmptyListAlignment(sizeof(T));
    }
    return {};
  }
  if constexpr (sizeof(T) > 1) {
    stream->ReadAlignment(sizeof(T));
  }
  ClaimBlock(size, sizeof(T), stream);
  return ReadBlock<T>(size, stream);
}

template <class Stream>
EncodableValue ReadDouble(Stream* stream) {
  stream->ReadAlignment(sizeof(double));
  return EncodableValue(ReadNumber<double>(stream));
}

inline EncodableValue ReportUnknownType(std::uint8_t /*type*/, Base64StreamReader* /*stream*/) {
  throw Base64StreamReader::GiveUp();
}

inline EncodableValue ReportUnknownType(std::uint8_t type, ByteStreamReader* stream) {
  stream->GetReports().AddUnknownType(type);
  return {};
}

template <class Source>
EncodableValue ReadItem(Source source) {
  const ValueScope scope(&source.stream->GetBudget());
  return source.ReadPayload(source.stream->ReadByte());
}

// Stands for the value that comes next; a container that makes an element of it reads the value
// right where it belongs.
template <class Source>
struct NextItem {
  Source source;
  operator EncodableValue() const { return ReadItem(source); }
};

template <class Source>
inline EncodableValue ReadList(Source source) {
  const std::size_t size = ReadSizeFrom(source.stream);
  AnnouncedItems items(size, kListItemMinSize, source.stream);
  EncodableValue value{EncodableList()};
  auto& list = *std::get_if<EncodableList>(&value);
  list.reserve(size);
  while (items.Next()) {
    list.emplace_back(NextItem<Source>{source});
  }
  return value;
}

template <class Source>
inline EncodableValue ReadMap(Source source) {
  const std::size_t size = ReadSizeFrom(source.stream);
  AnnouncedItems entries(size, kMapEntryMinSize, source.stream);
  EncodableValue value{EncodableMap()};
  auto& map = *std::get_if<EncodableMap>(&value);
  while (entries.Next()) {
    map.emplace_hint(map.end(), NextItem<Source>{source}, NextItem<Source>{source});
  }
  return value;
}

// The commonest kinds stand in ReadPayloadFrom; these are the rest.
template <class Stream>
EncodableValue ReadTypedListOf(std::uint8_t type, Stream* stream) {
  switch (static_cast<TypeByte>(type)) {
    case TypeByte::ByteList:
      return EncodableValue(ReadTypedList<std::uint8_t>(stream));
    case TypeByte::Int32List:
      return EncodableValue(ReadTypedList<std::int32_t>(stream));
    case TypeByte::Int64List:
      return EncodableValue(ReadTypedList<std::int64_t>(stream));
    case TypeByte::DoubleList:
      return EncodableValue(ReadTypedList<double>(stream));
    case TypeByte::FloatList:
      return EncodableValue(ReadTypedList<float>(stream));
    default:
      return ReportUnknownType(type, stream);
  }
}

template <class Source>
EncodableValue ReadPayloadFrom(std::uint8_t type, Source source) {
  switch (static_cast<TypeByte>(type)) {
    case TypeByte::Null:
      return {};
    case TypeByte::True:
      return EncodableValue(true);
    case TypeByte::False:
      return EncodableValue(false);
    case TypeByte::Int32:
      return EncodableValue(ReadNumber<std::int32_t>(source.stream));
    case TypeByte::Int64:
      return EncodableValue(ReadNumber<std::int64_t>(source.stream));
    case TypeByte::Double:
      return ReadDouble(source.stream);
    case TypeByte::LargeInt:
    case TypeByte::String:
      return ReadText(source.stream);
    case TypeByte::List:
      return ReadList(source);
    case TypeByte::Map:
      return ReadMap(source);
    default:
      return ReadTypedListOf(type, source.stream);
  }
}

// Where values are read from: through the virtual operations of any serializer and any stream.
struct AnySource {
  const StandardCodecSerializer* serializer;
  ByteStreamReader* stream;

  EncodableValue ReadPayload(std::uint8_t type) const {
    return serializer->ReadValueOfType(type, stream);
  }
};

// Where the standard serializer reads values from a stream that it knows: nothing is virtual.
template <class Stream>
struct DirectSource {
  Stream* stream;

  EncodableValue ReadPayload(std::uint8_t type) const { return ReadPayloadFrom(type, *this); }
};

}  // namespace cw::internal

#endif  // CW_SRC_VALUE_READER_H
