// cw::EncodableValue: the one dynamic value of the system, the payload of every message.
//
//   cw::EncodableValue value(cw::EncodableMap{{"id", 7}, {"tags", cw::EncodableList{"a", true}}});
//   if (const std::string* tag = value.Find("tags")->At(0)->AsString()) { ... }
//   std::cerr << value;  // {"id": 7, "tags": ["a", true]}
#ifndef CW_ENCODABLE_VALUE_H
#define CW_ENCODABLE_VALUE_H

#include <quarn/buffer.h>
#include <quarn/buffer_view.h>
#include <quarn/export.h>

#include <any>
#include <cstddef>
#include <cstdint>
#include <iosfwd>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <type_traits>
#include <utility>
#include <variant>
#include <vector>

namespace cw {

class EncodableValue;

using EncodableList = std::vector<EncodableValue>;
using EncodableMap = std::map<EncodableValue, EncodableValue>;

#ifdef __cpp_impl_three_way_comparison
namespace internal {

// Says whether two lists differ. Works as a bool, but is none to std::equality_comparable.
class Difference {
 public:
  struct Negation {
    bool holds;
    explicit operator bool() const { return holds; }
  };

  explicit Difference(bool is_there) : is_there_(is_there) {}
  operator bool() const { return is_there_; }
  Negation operator!() const { return {!is_there_}; }

 private:
  bool is_there_;
};

}  // namespace internal

// From C++20 on, a variant has a <=> if each of its alternatives has one. Whether EncodableList has
// one depends on whether EncodableValue does, which is a variant with that alternative: compilers
// refuse such a circle. This operator keeps them out of it, as a type without an equality that the
// standard library knows cannot have a <=>. Values and lists are compared as in C++17.
inline internal::Difference operator!=(const EncodableList& a, const EncodableList& b);
#endif

// A value of the application's own. The standard serializer cannot write it: derive a serializer
// that does. Copies share one payload, which never changes; two custom values are equal, and
// equivalent in order, only when they share it. Any thread may read it.
class TARV_EXPORT CustomEncodableValue {
 public:
  // Takes a copy of `payload`, or moves it in. Its type must be copyable, as std::any asks.
  template <class T,
            class = std::enable_if_t<!std::is_same_v<std::decay_t<T>, CustomEncodableValue>>>
  explicit CustomEncodableValue(T&& payload)
      : payload_(std::make_shared<const std::any>(std::forward<T>(payload))) {}

  // The payload if it is a T, else null. Valid while a copy of this value lives.
  template <class T>
  const T* GetIf() const {
    return std::any_cast<T>(payload_.get());
  }

  // The payload, or null when it was moved away.
  const std::any* GetPayload() const { return payload_.get(); }

  friend bool operator==(const CustomEncodableValue& a, const CustomEncodableValue& b) {
    return a.payload_ == b.payload_;
  }
  friend bool operator!=(const CustomEncodableValue& a, const CustomEncodableValue& b) {
    return a.payload_ != b.payload_;
  }
  friend bool operator<(const CustomEncodableValue& a, const CustomEncodableValue& b) {
    return a.payload_ < b.payload_;
  }
  friend bool operator<=(const CustomEncodableValue& a, const CustomEncodableValue& b) {
    return a.payload_ <= b.payload_;
  }
  friend bool operator>(const CustomEncodableValue& a, const CustomEncodableValue& b) {
    return a.payload_ > b.payload_;
  }
  friend bool operator>=(const CustomEncodableValue& a, const CustomEncodableValue& b) {
    return a.payload_ >= b.payload_;
  }

 private:
  std::shared_ptr<const std::any> payload_;
};

namespace internal {

// The position of an alternative orders values of different kinds and chooses their type byte, so
// the list only ever grows at its end.
using EncodableVariant =
    std::variant<std::monostate, bool, std::int32_t, std::int64_t, double, std::string,
                 std::vector<std::uint8_t>, std::vector<std::int32_t>, std::vector<std::int64_t>,
                 std::vector<double>, EncodableList, EncodableMap, CustomEncodableValue,
                 std::vector<float>>;

}  // namespace internal

// A value of one of the kinds above; std::get_if, std::holds_alternative and std::visit work on it.
//
// Values order by kind first, then within it, so the int32_t 1 and the int64_t 1 are different
// values and different map keys. A NaN equals nothing, itself included, and does not belong in a
// map key. Like a standard container, one value is not for several threads at once.
class TARV_EXPORT EncodableValue : public internal::EncodableVariant {
 public:
  // The null value.
  EncodableValue() = default;
  EncodableValue(std::nullptr_t) {}

  // Copying, moving and comparing fourteen kinds is code enough to be wanted once, in the library,
  // and not in every file that includes this one. A value moved from is valid, of the same kind.
  EncodableValue(const EncodableValue& other);
  EncodableValue(EncodableValue&& other) noexcept;
  EncodableValue& operator=(const EncodableValue& other);
  EncodableValue& operator=(EncodableValue&& other) noexcept;
  ~EncodableValue();

  // From each alternative, and from what converts to one of them without loss: int and shorter give
  // an int32_t, longer integers an int64_t, float a double.
  using internal::EncodableVariant::EncodableVariant;

  // Texts give a std::string. Throws std::logic_error for a null pointer.
  EncodableValue(const char* text) : EncodableValue(std::string(text)) {}
  EncodableValue(std::string_view text) : EncodableValue(std::string(text)) {}

  // No alternative holds every unsigned 64-bit number: check the range and cast to std::int64_t.
  EncodableValue(unsigned long) = delete;
  EncodableValue(unsigned long long) = delete;

  bool IsNull() const { return index() == 0; }

  // The value as the kind that is asked for, or nothing (null) when it is of another kind. Pointers
  // are valid until the value changes or dies.
  std::optional<bool> AsBool() const;
  // An int32_t or int64_t.
  std::optional<std::int64_t> AsInt64() const;
  // A double, or an integer that a double holds exactly.
  std::optional<double> AsDouble() const;
  const std::string* AsString() const { return std::get_if<std::string>(this); }
  const EncodableList* AsList() const { return std::get_if<EncodableList>(this); }
  const EncodableMap* AsMap() const { return std::get_if<EncodableMap>(this); }

  // The map's value under the string `key`. Null when this is no map or has no such key.
  const EncodableValue* Find(std::string_view key) const;
  // The same, if that value is a T: value.Find<std::string>("name").
  template <class T>
  const T* Find(std::string_view key) const {
    return std::get_if<T>(Find(key));
  }
  // The list's element at `index`. Null when this is no list or too short.
  const EncodableValue* At(std::size_t index) const;

  // The standard message encoding. A CustomEncodableValue anywhere inside stops the process by an
  // assertion. Throws std::length_error when lists and maps nest deeper than kMaxNesting.
  quarn::Buffer Serialize() const;

  // The first value in the bytes; what follows it is ignored. Never throws and never fails: null
  // for no bytes, for input beyond the bounds of codec_limits.h, and when memory runs out; zeros
  // and empty items, each with a line on standard error, for bytes that are missing.
  static EncodableValue Deserialize(const std::uint8_t* data, std::size_t size);
  // The same for the bytes that `view` describes, as far as its stated size covers its fields.
  static EncodableValue Deserialize(QuarnBufferView* view);
  static EncodableValue Deserialize(const quarn::Buffer& buffer);

  TARV_EXPORT friend bool operator==(const EncodableValue& a, const EncodableValue& b);
  TARV_EXPORT friend bool operator<(const EncodableValue& a, const EncodableValue& b);
  TARV_EXPORT friend bool operator<=(const EncodableValue& a, const EncodableValue& b);
  friend bool operator!=(const EncodableValue& a, const EncodableValue& b) { return !(a == b); }
  friend bool operator>(const EncodableValue& a, const EncodableValue& b) { return b < a; }
  friend bool operator>=(const EncodableValue& a, const EncodableValue& b) { return b <= a; }
};

#ifdef __cpp_impl_three_way_comparison
inline internal::Difference operator!=(const EncodableList& a, const EncodableList& b) {
  return internal::Difference(!(a == b));
}
#endif

// The value under the string `key`, or null when the map has none. Valid until the entry goes.
TARV_EXPORT const EncodableValue* Find(const EncodableMap& map, std::string_view key);

// One line for logs and test failures, close to JSON: 7 is an int32_t, 7L an int64_t, 7.0 a double;
// typed lists carry their kind: int32[1, 2], bytes[00 ff]. Long texts, long lists, deep nesting and
// long lines are clipped, and say so. The stream's number format does not matter.
TARV_EXPORT std::ostream& operator<<(std::ostream& stream, const EncodableValue& value);

}  // namespace cw

#endif  // CW_ENCODABLE_VALUE_H
