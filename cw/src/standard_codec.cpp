#include <cw/internal/base64_streams.h>
#include <cw/internal/size_estimate.h>
#include <cw/standard_codec.h>
#include <quarn/internal/large_memory.h>

#include <algorithm>
#include <array>
#include <cstring>
#include <string>
#include <type_traits>
#include <typeinfo>
#include <utility>
#include <variant>
#include <vector>

#include "assert.h"

namespace cw {

namespace {

static_assert(__BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__,
              "numbers are little-endian in the format and copied as they lie in memory");

// The reasons why decoding keeps to its memory bound: an item that is made up takes a place in a
// list at most (and, while a list still waits for such items, an element of a typed list beside
// it), and a map entry (two bytes at least) a tree node with a key and a value.
constexpr std::size_t kTreeNodeOverhead = 4 * sizeof(void*);
static_assert(kMaxMadeUpItems * (sizeof(EncodableValue) + sizeof(double)) <= kDecodeFixedMemory);
static_assert(2 * sizeof(EncodableValue) + kTreeNodeOverhead <=
              2 * (sizeof(EncodableValue) + kDecodeOverheadPerByte));
// Lists grow and maps take entries without copying.
static_assert(std::is_nothrow_move_constructible_v<EncodableValue>);

constexpr std::size_t kMapEntryMinSize = 2;  // the type bytes of key and value
constexpr std::size_t kListItemMinSize = 1;

constexpr std::uint8_t kSizeIs16Bit = 254;
constexpr std::uint8_t kSizeIs32Bit = 255;

// Copies up to 16 bytes, without the call that most of most messages' texts would cost: two pieces
// of a fixed length each, which overlap.
template <class Word>
void CopyByWords(std::uint8_t* out, const std::uint8_t* data, std::size_t length) {
  Word first;
  Word last;
  std::memcpy(&first, data, sizeof(Word));
  std::memcpy(&last, data + length - sizeof(Word), sizeof(Word));
  std::memcpy(out, &first, sizeof(Word));
  std::memcpy(out + length - sizeof(Word), &last, sizeof(Word));
}

void CopyShort(std::uint8_t* out, const std::uint8_t* data, std::size_t length) {
  if (length >= sizeof(std::uint64_t)) {
    CopyByWords<std::uint64_t>(out, data, length);
  } else if (length >= sizeof(std::uint32_t)) {
    CopyByWords<std::uint32_t>(out, data, length);
  } else if (length >= sizeof(std::uint16_t)) {
    CopyByWords<std::uint16_t>(out, data, length);
  } else if (length == 1) {
    *out = *data;
  }
}

// Where a value is written: through the virtual operations of any serializer and any stream.
class AnySink {
 public:
  AnySink(const StandardCodecSerializer* serializer, ByteStreamWriter* stream)
      : serializer_(serializer), stream_(stream) {}

  ByteStreamWriter* GetStream() const { return stream_; }
  void PutByte(std::uint8_t byte) { stream_->WriteByte(byte); }
  bool PutShortText(std::string_view /*text*/) { return false; }
  template <std::size_t kLength>
  void PutFew(const std::array<std::uint8_t, kLength>& bytes) {
    stream_->WriteBytes(bytes.data(), kLength);
  }
  void PutBytes(const std::uint8_t* data, std::size_t length) { stream_->WriteBytes(data, length); }
  void Align(std::uint8_t alignment) { stream_->WriteAlignment(alignment); }
  void PutValue(const EncodableValue& value) { serializer_->WriteValue(value, stream_); }

 private:
  const StandardCodecSerializer* serializer_;
  ByteStreamWriter* stream_;
};

// Gathers small pieces for a buffer, which takes long pieces as fast as short ones.
class BufferGatherer {
 public:
  static constexpr std::size_t kLongestPiece = 256;

  explicit BufferGatherer(quarn::Buffer* buffer) : buffer_(buffer), flushed_(buffer->GetSize()) {}
  // Makes room for the value at once, if it is the first and not a small one.
  BufferGatherer(quarn::Buffer* buffer, const EncodableValue& value) : BufferGatherer(buffer) {
    value_ = flushed_ == 0 ? &value : nullptr;
  }
  ~BufferGatherer() = default;
  BufferGatherer(const BufferGatherer&) = delete;
  BufferGatherer& operator=(const BufferGatherer&) = delete;

  std::size_t GetSize() const { return flushed_ + length_; }

  // Room for the next `length` bytes.
  std::uint8_t* Gather(std::size_t length) {
    if (length > gathered_.size() - length_) {
      Reserve();
      Flush();
    }
    length_ += length;
    return gathered_.data() + (length_ - length);
  }

  void Write(const std::uint8_t* data, std::size_t length) {
    Reserve();
    Flush();
    buffer_->WriteBytes(data, length);
    flushed_ += length;
  }

  // To be called at the end.
  void Flush() {
    buffer_->WriteBytes(gathered_.data(), length_);
    flushed_ += length_;
    length_ = 0;
  }

 private:
  void Reserve() {
    if (value_ != nullptr) {
      buffer_->Reserve(EstimateEncodedSize(*value_));
      value_ = nullptr;
    }
  }

  quarn::Buffer* buffer_;
  const EncodableValue* value_ = nullptr;
  std::size_t flushed_;     // bytes in the buffer
  std::size_t length_ = 0;  // bytes gathered behind them
  std::array<std::uint8_t, 4096> gathered_;
};

// Where the standard serializer writes a value through one who gathers its bytes: nothing is
// virtual.
template <class Gatherer>
class DirectSink {
 public:
  DirectSink(ByteStreamWriter* stream, Gatherer* gatherer) : stream_(stream), out_(gatherer) {}

  ByteStreamWriter* GetStream() const { return stream_; }

  void PutByte(std::uint8_t byte) { *out_->Gather(1) = byte; }

  template <std::size_t kLength>
  void PutFew(const std::array<std::uint8_t, kLength>& bytes) {
    std::memcpy(out_->Gather(kLength), bytes.data(), kLength);
  }

  // A whole text value, if it is a short one.
  bool PutShortText(std::string_view text) {
    if (text.size() > kLongestShort) {
      return false;
    }
    std::uint8_t* const out = out_->Gather(2 + text.size());
    out[0] = static_cast<std::uint8_t>(TypeByte::String);
    out[1] = static_cast<std::uint8_t>(text.size());
    CopyShort(out + 2, reinterpret_cast<const std::uint8_t*>(text.data()), text.size());
    return true;
  }

  // At least one byte.
  void PutBytes(const std::uint8_t* data, std::size_t length) {
    if (length > Gatherer::kLongestPiece) {
      out_->Write(data, length);
    } else {
      std::memcpy(out_->Gather(length), data, length);
    }
  }

  void Align(std::uint8_t alignment) {
    const std::size_t excess = out_->GetSize() % alignment;
    if (excess != 0) {
      std::memset(out_->Gather(alignment - excess), 0, alignment - excess);
    }
  }

  void PutValue(const EncodableValue& value);

 private:
  static constexpr std::size_t kLongestShort = 16;

  ByteStreamWriter* stream_;
  Gatherer* out_;
};

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
  sink.PutFew(Tagged(static_cast<std::uint8_t>(type), number));
}

template <class Sink>
void WriteSizeTo(std::size_t size, Sink& sink) {
  if (size < kSizeIs16Bit) {
    sink.PutByte(static_cast<std::uint8_t>(size));
  } else if (size <= 0xFFFF) {
    sink.PutFew(Tagged(kSizeIs16Bit, static_cast<std::uint16_t>(size)));
  } else {
    sink.PutFew(Tagged(kSizeIs32Bit, static_cast<std::uint32_t>(size)));
  }
}

template <class Sink>
void WriteHeader(TypeByte type, std::size_t size, Sink& sink) {
  WriteType(type, sink);
  WriteSizeTo(size, sink);
}

template <class Sink>
void WriteText(std::string_view text, Sink& sink) {
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
  void operator()(double number) const {
    WriteType(TypeByte::Double, sink);
    WriteAligned(&number, 1, sink);
  }
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

  // GCOVR_EXCL_START: the process ends before its counters are written.
  void operator()(const CustomEncodableValue& /*custom*/) const {
    constexpr bool kIsStandardType = false;
    CW_ASSERT(kIsStandardType,
              "StandardCodecSerializer cannot write a CustomEncodableValue; derive a serializer, "
              "write the value in its WriteValue, and use the codec of that serializer.");
  }
  // GCOVR_EXCL_STOP
};

template <class Sink>
void WriteValueTo(const EncodableValue& value, Sink& sink) {
  // Most of most messages; the other kinds go through a table of functions.
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

// A value that is being read, for the budget.
class ValueScope {
 public:
  explicit ValueScope(internal::DecodeBudget* budget) : budget_(budget) { budget_->EnterValue(); }
  ~ValueScope() { budget_->LeaveValue(); }
  ValueScope(const ValueScope&) = delete;
  ValueScope& operator=(const ValueScope&) = delete;

 private:
  internal::DecodeBudget* budget_;
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
std::size_t ReadSizeFrom(Stream* stream) {
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
EncodableValue ReadChars(std::size_t length, ByteStreamReader* stream) {
  std::string text(length, '\0');
  stream->ReadBytes(reinterpret_cast<std::uint8_t*>(text.data()), length);
  return EncodableValue(std::move(text));
}

// The same from a buffer: made of the bytes that lie there, and not filled with zeros before.
EncodableValue ReadChars(std::size_t length, ByteBufferStreamReader* stream) {
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
    const Base64StreamReader::Piece piece = stream->TakeSome(length);
    const auto* const data = reinterpret_cast<const Byte*>(piece.data);
    bytes.insert(bytes.end(), data, data + piece.size);
    length -= piece.size;
  }
}

EncodableValue ReadChars(std::size_t length, Base64StreamReader* stream) {
  EncodableValue value(std::in_place_type<std::string>);
  AppendBytes<char>(length, stream, *std::get_if<std::string>(&value));
  return value;
}

template <class Stream>
EncodableValue ReadText(Stream* stream) {
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

EncodableValue ReportUnknownType(std::uint8_t /*type*/, Base64StreamReader* /*stream*/) {
  throw Base64StreamReader::GiveUp();
}

EncodableValue ReportUnknownType(std::uint8_t type, ByteStreamReader* stream) {
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
EncodableValue ReadList(Source source) {
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
EncodableValue ReadMap(Source source) {
  const std::size_t size = ReadSizeFrom(source.stream);
  AnnouncedItems entries(size, kMapEntryMinSize, source.stream);
  EncodableValue value{EncodableMap()};
  auto& map = *std::get_if<EncodableMap>(&value);
  while (entries.Next()) {
    map.emplace_hint(map.end(), NextItem<Source>{source}, NextItem<Source>{source});
  }
  return value;
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
    case TypeByte::ByteList:
      return EncodableValue(ReadTypedList<std::uint8_t>(source.stream));
    case TypeByte::Int32List:
      return EncodableValue(ReadTypedList<std::int32_t>(source.stream));
    case TypeByte::Int64List:
      return EncodableValue(ReadTypedList<std::int64_t>(source.stream));
    case TypeByte::DoubleList:
      return EncodableValue(ReadTypedList<double>(source.stream));
    case TypeByte::List:
      return ReadList(source);
    case TypeByte::Map:
      return ReadMap(source);
    case TypeByte::FloatList:
      return EncodableValue(ReadTypedList<float>(source.stream));
  }
  return ReportUnknownType(type, source.stream);
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

bool IsText(std::uint8_t type) {
  return type == static_cast<std::uint8_t>(TypeByte::String) ||
         type == static_cast<std::uint8_t>(TypeByte::LargeInt);
}

// The text that comes next as a key, where it lies; the empty one where it is not all there.
std::string_view TakeText(std::size_t length, ByteBufferStreamReader* stream) {
  const auto* const text = reinterpret_cast<const char*>(stream->TakeBytes(length));
  return text == nullptr ? std::string_view() : std::string_view(text, length);
}

// The same; the empty one for a text that is longer than any key that is wanted.
std::string_view TakeText(std::size_t length, Base64StreamReader* stream) {
  if (length > Base64StreamReader::kLongestTaken) {
    ReadChars(length, stream);
    return {};
  }
  return {reinterpret_cast<const char*>(stream->TakeBytes(length)), length};
}

// The key that comes next, valid until the next read; the empty one for what is no text.
template <class Stream>
std::string_view ReadKey(DirectSource<Stream> source) {
  const ValueScope scope(&source.stream->GetBudget());
  const std::uint8_t type = source.stream->ReadByte();
  if (!IsText(type)) {
    source.ReadPayload(type);
    return {};
  }
  const std::size_t length = ReadSizeFrom(source.stream);
  ClaimBlock(length, 1, source.stream);
  return TakeText(length, source.stream);
}

// The entry with this key, if it is still without a value.
WantedEntry* FindWanted(std::string_view key, WantedEntry* wanted, std::size_t count) {
  WantedEntry* const end = wanted + count;
  WantedEntry* const found =
      std::find_if(wanted, end, [key](const WantedEntry& entry) { return entry.key == key; });
  return found == end || found->value ? nullptr : found;
}

// ReadMap, for the entries that are wanted. The others are read as well: they count, and what is
// wrong with them is reported.
template <class Stream>
void ReadEntries(DirectSource<Stream> source, WantedEntry* wanted, std::size_t count) {
  const std::size_t size = ReadSizeFrom(source.stream);
  AnnouncedItems entries(size, kMapEntryMinSize, source.stream);
  while (entries.Next()) {
    if (WantedEntry* const found = FindWanted(ReadKey(source), wanted, count)) {
      found->value.emplace(NextItem<DirectSource<Stream>>{source});
    } else {
      ReadItem(source);
    }
  }
}

template <class Stream>
bool ReadMapEntriesFrom(DirectSource<Stream> source, WantedEntry* wanted, std::size_t count) {
  const ValueScope scope(&source.stream->GetBudget());
  const std::uint8_t type = source.stream->ReadByte();
  if (type != static_cast<std::uint8_t>(TypeByte::Map)) {
    source.ReadPayload(type);
    return false;
  }
  ReadEntries(source, wanted, count);
  return true;
}

// GCOVR_EXCL_BR_START: comparing types has a branch for names that none of these types has.
// The stream as one that is known, if that is what it is and the serializer has no overrides.
template <class Known, class Stream>
Known* AsKnown(const StandardCodecSerializer* serializer, Stream* stream) {
  const bool known =
      serializer == &StandardCodecSerializer::GetInstance() && typeid(*stream) == typeid(Known);
  return known ? static_cast<Known*>(stream) : nullptr;
}
// GCOVR_EXCL_BR_STOP

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

}  // namespace

const StandardCodecSerializer& StandardCodecSerializer::GetInstance() {
  // Never destroyed: other objects may still encode while the process exits.
  // GCOVR_EXCL_BR_START: no test can arrange which of two threads makes it.
  static const auto* const instance = new StandardCodecSerializer;
  // GCOVR_EXCL_BR_STOP
  return *instance;
}

void StandardCodecSerializer::WriteSize(std::size_t size, ByteStreamWriter* stream) const {
  AnySink sink(this, stream);
  WriteSizeTo(size, sink);
}

std::size_t StandardCodecSerializer::ReadSize(ByteStreamReader* stream) const {
  return ReadSizeFrom(stream);
}

void StandardCodecSerializer::WriteString(std::string_view text, ByteStreamWriter* stream) const {
  WriteToSink(this, stream, [text](auto& sink) { WriteText(text, sink); });
}

void StandardCodecSerializer::WriteValue(const EncodableValue& value,
                                         ByteStreamWriter* stream) const {
  WriteToSink(
      this, stream, [&value](auto& sink) { WriteValueTo(value, sink); }, value);
}

EncodableValue StandardCodecSerializer::ReadValue(ByteStreamReader* stream) const {
  // A derived serializer reads the values inside its own types here.
  if (stream->GetBudget().IsInsideValue() && stream->BytesLeft() == 0) {
    stream->GetBudget().MakeUp(1);
  }
  return ReadItem(AnySource{this, stream});
}

template <class T>
std::vector<T> StandardCodecSerializer::ReadVector(ByteStreamReader* stream) const {
  return ReadTypedList<T>(stream);
}

template std::vector<std::uint8_t> StandardCodecSerializer::ReadVector(ByteStreamReader*) const;
template std::vector<std::int32_t> StandardCodecSerializer::ReadVector(ByteStreamReader*) const;
template std::vector<std::int64_t> StandardCodecSerializer::ReadVector(ByteStreamReader*) const;
template std::vector<double> StandardCodecSerializer::ReadVector(ByteStreamReader*) const;
template std::vector<float> StandardCodecSerializer::ReadVector(ByteStreamReader*) const;

EncodableValue StandardCodecSerializer::ReadValueOfType(std::uint8_t type,
                                                        ByteStreamReader* stream) const {
  if (auto* const plain = AsKnown<ByteBufferStreamReader>(this, stream)) {
    return DirectSource<ByteBufferStreamReader>{plain}.ReadPayload(type);
  }
  return ReadPayloadFrom(type, AnySource{this, stream});
}

bool ReadMapEntries(WantedEntry* wanted, std::size_t count, ByteBufferStreamReader* stream) {
  return ReadMapEntriesFrom(DirectSource<ByteBufferStreamReader>{stream}, wanted, count);
}

bool ReadMapEntries(WantedEntry* wanted, std::size_t count, Base64StreamReader* stream) {
  return ReadMapEntriesFrom(DirectSource<Base64StreamReader>{stream}, wanted, count);
}

MapWriter::MapWriter(std::size_t size, const StandardCodecSerializer* serializer,
                     ByteStreamWriter* stream)
    : serializer_(serializer), stream_(stream), scope_(stream) {
  WriteToSink(serializer, stream, [size](auto& sink) { WriteHeader(TypeByte::Map, size, sink); });
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
