#include <cw/encodable_value.h>
#include <cw/standard_message_codec.h>
#include <quarn/internal/large_memory.h>
#include <quarn/sized_struct.h>

#include <new>
#include <stdexcept>

namespace cw {

namespace {

// Doubles hold every integer up to this magnitude.
constexpr std::int64_t kMaxExactInteger = std::int64_t{1} << 53;

const internal::EncodableVariant& AsVariant(const EncodableValue& value) { return value; }

// Two lists or two maps. The standard order would look at each pair of equal elements twice,
// which doubles the work with every level of nesting; theirs is found in one look.
bool AreContainers(const EncodableValue& a, const EncodableValue& b) {
  return a.index() == b.index() && (a.AsList() != nullptr || a.AsMap() != nullptr);
}

int CompareSizes(std::size_t a, std::size_t b) { return a < b ? -1 : static_cast<int>(b < a); }

int Compare(const EncodableValue& a, const EncodableValue& b);

int CompareLists(const EncodableList& a, const EncodableList& b) {
  for (std::size_t i = 0; i < a.size() && i < b.size(); ++i) {
    if (const int order = Compare(a[i], b[i]); order != 0) {
      return order;
    }
  }
  return CompareSizes(a.size(), b.size());
}

int CompareMaps(const EncodableMap& a, const EncodableMap& b) {
  for (auto in_a = a.begin(), in_b = b.begin(); in_a != a.end() && in_b != b.end();
       ++in_a, ++in_b) {
    if (const int order = Compare(in_a->first, in_b->first); order != 0) {
      return order;
    }
    if (const int order = Compare(in_a->second, in_b->second); order != 0) {
      return order;
    }
  }
  return CompareSizes(a.size(), b.size());
}

// Negative, zero or positive as a is before, equivalent to or after b.
int Compare(const EncodableValue& a, const EncodableValue& b) {
  if (!AreContainers(a, b)) {
    return a < b ? -1 : static_cast<int>(b < a);
  }
  return a.AsList() != nullptr ? CompareLists(*a.AsList(), *b.AsList())
                               : CompareMaps(*a.AsMap(), *b.AsMap());
}

using Bytes = std::vector<std::uint8_t>;

// Bytes are what a really large payload is made of. A copy of so many is worth some care.
bool IsLarge(const EncodableValue& value) {
  const auto* const bytes = std::get_if<Bytes>(&value);
  return bytes != nullptr && quarn::IsLarge(bytes->size());
}

// Never destroyed: values may be copied while the process exits.
const internal::EncodableVariant& Null() {
  static const auto* const null = new internal::EncodableVariant;
  return *null;
}

}  // namespace

EncodableValue::EncodableValue(const EncodableValue& other)
    : internal::EncodableVariant(IsLarge(other) ? Null() : AsVariant(other)) {
  if (IsLarge(other)) {
    const auto& bytes = *std::get_if<Bytes>(&other);
    auto& copy = emplace<Bytes>();
    copy.reserve(bytes.size());
    quarn::ExpectFilling(copy.data(), bytes.size());
    copy.insert(copy.end(), bytes.begin(), bytes.end());
  }
}
EncodableValue::EncodableValue(EncodableValue&& other) noexcept = default;
EncodableValue& EncodableValue::operator=(const EncodableValue& other) = default;
EncodableValue& EncodableValue::operator=(EncodableValue&& other) noexcept = default;
EncodableValue::~EncodableValue() = default;

bool operator==(const EncodableValue& a, const EncodableValue& b) {
  return AsVariant(a) == AsVariant(b);
}

bool operator<(const EncodableValue& a, const EncodableValue& b) {
  // Most keys are texts, and most of those differ in their first character.
  const std::string* const text = a.AsString();
  const std::string* const other_text = b.AsString();
  if (text != nullptr && other_text != nullptr) {
    const auto first = static_cast<unsigned char>(*text->c_str());
    const auto other_first = static_cast<unsigned char>(*other_text->c_str());
    return first != other_first ? first < other_first : *text < *other_text;
  }
  return AreContainers(a, b) ? Compare(a, b) < 0 : AsVariant(a) < AsVariant(b);
}

bool operator<=(const EncodableValue& a, const EncodableValue& b) {
  return AreContainers(a, b) ? Compare(a, b) <= 0 : AsVariant(a) <= AsVariant(b);
}

std::optional<bool> EncodableValue::AsBool() const {
  const auto* flag = std::get_if<bool>(this);
  return flag == nullptr ? std::nullopt : std::optional(*flag);
}

std::optional<std::int64_t> EncodableValue::AsInt64() const {
  if (const auto* int32 = std::get_if<std::int32_t>(this)) {
    return *int32;
  }
  const auto* int64 = std::get_if<std::int64_t>(this);
  return int64 == nullptr ? std::nullopt : std::optional(*int64);
}

std::optional<double> EncodableValue::AsDouble() const {
  if (const auto* number = std::get_if<double>(this)) {
    return *number;
  }
  const std::optional<std::int64_t> integer = AsInt64();
  if (!integer || *integer > kMaxExactInteger || *integer < -kMaxExactInteger) {
    return std::nullopt;
  }
  return static_cast<double>(*integer);
}

const EncodableValue* EncodableValue::Find(std::string_view key) const {
  const EncodableMap* map = AsMap();
  return map == nullptr ? nullptr : cw::Find(*map, key);
}

const EncodableValue* EncodableValue::At(std::size_t index) const {
  const EncodableList* list = AsList();
  return list == nullptr || index >= list->size() ? nullptr : &(*list)[index];
}

const EncodableValue* Find(const EncodableMap& map, std::string_view key) {
  const auto entry = map.find(EncodableValue(key));
  return entry == map.end() ? nullptr : &entry->second;
}

quarn::Buffer EncodableValue::Serialize() const {
  return StandardMessageCodec::GetInstance(nullptr).EncodeMessage(*this);
}

EncodableValue EncodableValue::Deserialize(const std::uint8_t* data, std::size_t size) {
  try {
    auto value = StandardMessageCodec::GetInstance(nullptr).DecodeMessage(data, size);
    return value ? std::move(*value) : EncodableValue();
  } catch (const std::length_error&) {
    return {};  // beyond the codec's bounds
  } catch (const std::bad_alloc&) {
    return {};
  }
}

EncodableValue EncodableValue::Deserialize(QuarnBufferView* view) {
  return Deserialize(quarn::ReadField(view, &QuarnBufferView::data),
                     quarn::ReadField(view, &QuarnBufferView::size));
}

EncodableValue EncodableValue::Deserialize(const quarn::Buffer& buffer) {
  return Deserialize(buffer.GetData(), buffer.GetSize());
}

}  // namespace cw
