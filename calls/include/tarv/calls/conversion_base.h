// The base of all conversions: their template, which the other conversion_*.h specialise, the kinds
// of types that they tell apart, and the work that is the same for many types.
#ifndef TARV_CALLS_CONVERSION_BASE_H
#define TARV_CALLS_CONVERSION_BASE_H

#include <cw/encodable_value.h>
#include <tarv/calls/misfit.h>

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <type_traits>
#include <vector>

namespace tarv::details {

// One name of an enumeration.
struct EnumName {
  std::string_view name;
  std::int64_t value;
};

// The structures around the place that is being described, innermost last.
using OpenStructs = std::vector<std::string_view>;

// An integer type as the functions see it that serve all of them.
struct IntegerKind {
  const char* name;  // "int16"
  std::int64_t least;
  std::int64_t most;  // no more than int64 holds
};

// The work itself, once for all types. Each returns false once the misfit is reported.
bool ReadBool(const cw::EncodableValue& from, bool& to, Misfit& misfit);
bool ReadInteger(const cw::EncodableValue& from, const IntegerKind& kind, std::int64_t& to,
                 Misfit& misfit);
bool ReadDouble(const cw::EncodableValue& from, double& to, Misfit& misfit);
bool ReadFloat(const cw::EncodableValue& from, float& to, Misfit& misfit);
bool ReadText(const cw::EncodableValue& from, std::string& to, Misfit& misfit);
bool ReadBytes(const cw::EncodableValue& from, std::vector<std::uint8_t>& to, Misfit& misfit);
bool ReadIntegers(const cw::EncodableValue& from, const IntegerKind& kind,
                  std::vector<std::int64_t>& to, Misfit& misfit);
bool ReadDoubles(const cw::EncodableValue& from, std::vector<double>& to, Misfit& misfit);
bool ReadFloats(const cw::EncodableValue& from, std::vector<float>& to, Misfit& misfit);
bool ReadEnum(const cw::EncodableValue& from, const char* type, const EnumName* names,
              std::size_t count, std::int64_t& to, Misfit& misfit);
bool WriteEnum(std::int64_t value, const char* type, const EnumName* names, std::size_t count,
               cw::EncodableValue& to, Misfit& misfit);
bool WriteUnsigned(std::uint64_t value, cw::EncodableValue& to, Misfit& misfit);
bool WriteAny(cw::EncodableValue&& value, cw::EncodableValue& to, Misfit& misfit);
// False at the depth that the codec does not write. True opens a level, which `--depth` closes.
bool OpenLevel(Misfit& misfit);
// The list in `from`, or null. A list of numbers, which JSON's lists of numbers become, is spread out
// into `room`.
const cw::EncodableList* ReadList(const cw::EncodableValue& from, cw::EncodableList& room,
                                  Misfit& misfit);
// The same for a map, which must have text keys alone if `text_keys`.
const cw::EncodableMap* ReadMap(const cw::EncodableValue& from, bool text_keys, Misfit& misfit);
void Put(cw::EncodableMap& map, std::string_view key, cw::EncodableValue&& value);
cw::EncodableValue ShapeIn(const char* holder, cw::EncodableValue&& inner);
cw::EncodableValue ShapeOfEnum(const char* type, const EnumName* names, std::size_t count);
cw::EncodableValue ShapeOfMember(const char* name, cw::EncodableValue&& shape);
cw::EncodableValue ShapeOfStruct(const char* type, cw::EncodableList&& members);
cw::EncodableValue ShapeOfOpenStruct(const char* type);
bool IsOpen(const OpenStructs& open, std::string_view type);

struct NoVisitor {
  template <class Member>
  void operator()(const char* /*name*/, Member /*member*/) const {}
};

template <class T, class = void>
inline constexpr bool kIsStruct = false;
template <class T>
inline constexpr bool kIsStruct<
    T, std::void_t<decltype(TarvEachMember(static_cast<const T*>(nullptr), NoVisitor()))>> = true;

template <class T, class = void>
inline constexpr bool kIsNamedEnum = false;
template <class T>
inline constexpr bool
    kIsNamedEnum<T, std::void_t<decltype(TarvEnumNames(static_cast<const T*>(nullptr)))>> =
        std::is_enum_v<T>;

// Numbers, without what only looks like one: bool and the types of characters.
template <class T>
inline constexpr bool kIsInteger =
    std::is_integral_v<T> && !std::is_same_v<T, bool> && !std::is_same_v<T, char> &&
    !std::is_same_v<T, wchar_t> && !std::is_same_v<T, char16_t> && !std::is_same_v<T, char32_t>;

// Write moves `value` into `to`; Read fills `to` from `from`; Shape describes the type.
template <class T, class = void>
struct Conversion {
  static_assert(!std::is_same_v<T, T>,
                "tarv: this type cannot travel in a message. A structure needs TARV_VALUE, an "
                "enumeration TARV_ENUM, in its own namespace; value.h lists all other types.");
};

}  // namespace tarv::details

#endif  // TARV_CALLS_CONVERSION_BASE_H
