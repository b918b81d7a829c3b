#include <cw/standard_codec.h>

#include <array>
#include <cstring>
#include <iostream>
#include <string>
#include <type_traits>
#include <utility>

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

// A type byte and what follows it at once, gathered so that it goes to the stream in one piece.
class Header {
 public:
  void Add(TypeByte type) { bytes_[length_++] = static_cast<std::uint8_t>(type); }

  template <class T>
  void AddNumber(T number) {
    std::memcpy(&bytes_[length_], &number, sizeof(number));
    length_ += sizeof(number);
  }

  void AddSize(std::size_t size) {
    if (size < kSizeIs16Bit) {
      AddNumber(static_cast<std::uint8_t>(size));
    } else if (size <= 0xFFFF) {
      AddNumber(kSizeIs16Bit);
      AddNumber(static_cast<std::uint16_t>(size));
    } else {
      AddNumber(kSizeIs32Bit);
      AddNumber(static_cast<std::uint32_t>(size));
    }
  }

  void WriteTo(ByteStreamWriter* stream) const { stream->WriteBytes(bytes_.data(), length_); }

 private:
  std::array<std::uint8_t, 9> bytes_;  // a type byte and a 64-bit number
  std::size_t length_ = 0;
};

template <class T>
void WriteInteger(TypeByte type, T number, ByteStreamWriter* stream) {
  Header header;
  header.Add(type);
  header.AddNumber(number);
  header.WriteTo(stream);
}

void WriteHeader(TypeByte type, std::size_t size, ByteStreamWriter* stream) {
  Header header;
  header.Add(type);
  header.AddSize(size);
  header.WriteTo(stream);
}

template <class T>
void WriteAligned(const T* items, std::size_t count, ByteStreamWriter* stream) {
  if constexpr (sizeof(T) > 1) {
    stream->WriteAlignment(sizeof(T));
  }
  stream->WriteBytes(reinterpret_cast<const std::uint8_t*>(items), count * sizeof(T));
}

void WriteType(TypeByte type, ByteStreamWriter* stream) {
  stream->WriteByte(static_cast<std::uint8_t>(type));
}

template <class T>
void WriteTypedList(TypeByte type, const std::vector<T>& list, ByteStreamWriter* stream) {
  WriteHeader(type, list.size(), stream);
  if (!list.empty()) {
    WriteAligned(list.data(), list.size(), stream);
  }
}

// Writes the value that std::visit finds, the values inside through the serializer.
struct ValueWriter {
  const StandardCodecSerializer* serializer;
  ByteStreamWriter* stream;

  void operator()(std::monostate /*null*/) const { WriteType(TypeByte::Null, stream); }
  void operator()(bool flag) const { WriteType(flag ? TypeByte::True : TypeByte::False, stream); }
  void operator()(std::int32_t number) const { WriteInteger(TypeByte::Int32, number, stream); }
  void operator()(std::int64_t number) const { WriteInteger(TypeByte::Int64, number, stream); }
  void operator()(double number) const {
    WriteType(TypeByte::Double, stream);
    WriteAligned(&number, 1, stream);
  }
  void operator()(const std::string& text) const { serializer->WriteString(text, stream); }
  void operator()(const std::vector<std::uint8_t>& list) const {
    WriteTypedList(TypeByte::ByteList, list, stream);
  }
  void operator()(const std::vector<std::int32_t>& list) const {
    WriteTypedList(TypeByte::Int32List, list, stream);
  }
  void operator()(const std::vector<std::int64_t>& list) const {
    WriteTypedList(TypeByte::Int64List, list, stream);
  }
  void operator()(const std::vector<double>& list) const {
    WriteTypedList(TypeByte::DoubleList, list, stream);
  }
  void operator()(const std::vector<float>& list) const {
    WriteTypedList(TypeByte::FloatList, list, stream);
  }

  void operator()(const EncodableList& list) const {
    const NestingScope scope(stream);
    WriteHeader(TypeByte::List, list.size(), stream);
    for (const EncodableValue& item : list) {
      serializer->WriteValue(item, stream);
    }
  }

  void operator()(const EncodableMap& map) const {
    const NestingScope scope(stream);
    WriteHeader(TypeByte::Map, map.size(), stream);
    for (const auto& [key, value] : map) {
      serializer->WriteValue(key, stream);
      serializer->WriteValue(value, stream);
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

template <class T>
T ReadNumber(ByteStreamReader* stream) {
  T number = 0;
  stream->ReadBytes(reinterpret_cast<std::uint8_t*>(&number), sizeof(number));
  return number;
}

// Accounts for a block that the stream is asked for: the reader copies all of it or nothing.
void ClaimBlock(std::size_t count, std::size_t item_size, ByteStreamReader* stream) {
  if (count > stream->BytesLeft() / item_size) {
    stream->GetBudget().MakeUp(count);
  }
}

EncodableValue ReadString(std::size_t length, ByteStreamReader* stream) {
  ClaimBlock(length, 1, stream);
  std::string text(length, '\0');
  stream->ReadBytes(reinterpret_cast<std::uint8_t*>(text.data()), length);
  return EncodableValue(std::move(text));
}

EncodableValue ReadDouble(ByteStreamReader* stream) {
  stream->ReadAlignment(sizeof(double));
  return EncodableValue(ReadNumber<double>(stream));
}

EncodableValue ReportUnknownType(std::uint8_t type) {
  std::cerr << "Unknown type in StandardCodecSerializer::ReadValueOfType: " + std::to_string(type) +
                   "\n";
  return {};
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
class AnnouncedItems {
 public:
  AnnouncedItems(std::size_t count, std::size_t item_size, ByteStreamReader* stream)
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
  ByteStreamReader* stream_;
  std::size_t item_size_;
  std::size_t left_;
};

}  // namespace

const StandardCodecSerializer& StandardCodecSerializer::GetInstance() {
  // Never destroyed: other objects may still encode while the process exits.
  static const auto* const instance = new StandardCodecSerializer;
  return *instance;
}

void StandardCodecSerializer::WriteSize(std::size_t size, ByteStreamWriter* stream) const {
  Header header;
  header.AddSize(size);
  header.WriteTo(stream);
}

std::size_t StandardCodecSerializer::ReadSize(ByteStreamReader* stream) const {
  const std::uint8_t first = stream->ReadByte();
  if (first == kSizeIs16Bit) {
    return ReadNumber<std::uint16_t>(stream);
  }
  if (first == kSizeIs32Bit) {
    return ReadNumber<std::uint32_t>(stream);
  }
  return first;
}

void StandardCodecSerializer::WriteString(std::string_view text, ByteStreamWriter* stream) const {
  WriteHeader(TypeByte::String, text.size(), stream);
  stream->WriteBytes(reinterpret_cast<const std::uint8_t*>(text.data()), text.size());
}

void StandardCodecSerializer::WriteValue(const EncodableValue& value,
                                         ByteStreamWriter* stream) const {
  if (value.valueless_by_exception()) {
    WriteType(TypeByte::Null, stream);
    return;
  }
  std::visit(ValueWriter{this, stream}, static_cast<const internal::EncodableVariant&>(value));
}

EncodableValue StandardCodecSerializer::ReadValue(ByteStreamReader* stream) const {
  // A derived serializer reads the values inside its own types here.
  if (stream->GetBudget().IsInsideValue() && stream->BytesLeft() == 0) {
    stream->GetBudget().MakeUp(1);
  }
  return ReadItem(stream);
}

EncodableValue StandardCodecSerializer::ReadItem(ByteStreamReader* stream) const {
  const ValueScope scope(&stream->GetBudget());
  const std::uint8_t type = stream->ReadByte();
  return ReadValueOfType(type, stream);
}

EncodableValue StandardCodecSerializer::ReadList(ByteStreamReader* stream) const {
  const std::size_t size = ReadSize(stream);
  AnnouncedItems items(size, kListItemMinSize, stream);
  EncodableList list;
  list.reserve(size);
  while (items.Next()) {
    list.push_back(ReadItem(stream));
  }
  return EncodableValue(std::move(list));
}

EncodableValue StandardCodecSerializer::ReadMap(ByteStreamReader* stream) const {
  AnnouncedItems entries(ReadSize(stream), kMapEntryMinSize, stream);
  EncodableMap map;
  while (entries.Next()) {
    EncodableValue key = ReadItem(stream);
    EncodableValue value = ReadItem(stream);
    map.try_emplace(map.end(), std::move(key), std::move(value));
  }
  return EncodableValue(std::move(map));
}

template <class T>
std::vector<T> StandardCodecSerializer::ReadVector(ByteStreamReader* stream) const {
  const std::size_t size = ReadSize(stream);
  // Peers differ in whether they pad an empty list; the padding is skipped as for any other.
  if constexpr (sizeof(T) > 1) {
    stream->ReadAlignment(sizeof(T));
  }
  if (size == 0) {
    return {};
  }
  ClaimBlock(size, sizeof(T), stream);
  std::vector<T> list(size);
  stream->ReadBytes(reinterpret_cast<std::uint8_t*>(list.data()), size * sizeof(T));
  return list;
}

template std::vector<std::uint8_t> StandardCodecSerializer::ReadVector(ByteStreamReader*) const;
template std::vector<std::int32_t> StandardCodecSerializer::ReadVector(ByteStreamReader*) const;
template std::vector<std::int64_t> StandardCodecSerializer::ReadVector(ByteStreamReader*) const;
template std::vector<double> StandardCodecSerializer::ReadVector(ByteStreamReader*) const;
template std::vector<float> StandardCodecSerializer::ReadVector(ByteStreamReader*) const;

EncodableValue StandardCodecSerializer::ReadValueOfType(std::uint8_t type,
                                                        ByteStreamReader* stream) const {
  switch (static_cast<TypeByte>(type)) {
    case TypeByte::Null:
      return {};
    case TypeByte::True:
      return EncodableValue(true);
    case TypeByte::False:
      return EncodableValue(false);
    case TypeByte::Int32:
      return EncodableValue(ReadNumber<std::int32_t>(stream));
    case TypeByte::Int64:
      return EncodableValue(ReadNumber<std::int64_t>(stream));
    case TypeByte::Double:
      return ReadDouble(stream);
    case TypeByte::LargeInt:
    case TypeByte::String:
      return ReadString(ReadSize(stream), stream);
    case TypeByte::ByteList:
      return EncodableValue(ReadVector<std::uint8_t>(stream));
    case TypeByte::Int32List:
      return EncodableValue(ReadVector<std::int32_t>(stream));
    case TypeByte::Int64List:
      return EncodableValue(ReadVector<std::int64_t>(stream));
    case TypeByte::DoubleList:
      return EncodableValue(ReadVector<double>(stream));
    case TypeByte::List:
      return ReadList(stream);
    case TypeByte::Map:
      return ReadMap(stream);
    case TypeByte::FloatList:
      return EncodableValue(ReadVector<float>(stream));
  }
  return ReportUnknownType(type);
}

MapWriter::MapWriter(std::size_t size, const StandardCodecSerializer* serializer,
                     ByteStreamWriter* stream)
    : serializer_(serializer), stream_(stream), scope_(stream) {
  WriteHeader(TypeByte::Map, size, stream_);
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
