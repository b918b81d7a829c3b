// How each type of value.h is written, read and described. Read value.h first.
#ifndef TARV_CALLS_CONVERSION_H
#define TARV_CALLS_CONVERSION_H

#include <cw/encodable_value.h>
#include <tarv/calls/misfit.h>

#include <cstddef>
#include <cstdint>
#include <limits>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <type_traits>
#include <unordered_map>
#include <utility>
#include <vector>

namespace tarv::details {

// One name of an enumeration.
struct EnumName {
  std::string_view name;
  std::int64_t value;
};

// The structures around the place that is being described, innermost last.
using OpenStructs = std::vector<std::string_view>;

// An integer type, for what is the same for all of them.
struct IntegerKind {
  const char* name;  // "int16"
  std::int64_t least;
  std::int64_t most;  // no more than int64 holds
};

// What does the work, once for all types. Each returns false once the misfit is reported.
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
const cw::EncodableList* ReadList(const cw::EncodableValue& from, Misfit& misfit);
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

template <>
struct Conversion<cw::EncodableValue> {
  static bool Write(cw::EncodableValue&& value, cw::EncodableValue& to, Misfit& misfit) {
    return WriteAny(std::move(value), to, misfit);
  }
  static bool Read(const cw::EncodableValue& from, cw::EncodableValue& to, Misfit& /*misfit*/) {
    to = from;
    return true;
  }
  static cw::EncodableValue Shape(OpenStructs& /*open*/) { return "any"; }
};

template <>
struct Conversion<bool> {
  static bool Write(bool value, cw::EncodableValue& to, Misfit& /*misfit*/) {
    to = value;
    return true;
  }
  static bool Read(const cw::EncodableValue& from, bool& to, Misfit& misfit) {
    return ReadBool(from, to, misfit);
  }
  static cw::EncodableValue Shape(OpenStructs& /*open*/) { return "bool"; }
};

template <class T>
constexpr IntegerKind KindOfInteger() {
  constexpr const char* kNames[2][4] = {{"uint8", "uint16", "uint32", "uint64"},
                                        {"int8", "int16", "int32", "int64"}};
  constexpr std::size_t kWidth = sizeof(T) == 1 ? 0 : sizeof(T) == 2 ? 1 : sizeof(T) == 4 ? 2 : 3;
  constexpr auto kLimit = std::numeric_limits<std::int64_t>::max();
  constexpr bool kHuge = std::is_unsigned_v<T> && sizeof(T) == sizeof(kLimit);
  return {kNames[std::is_signed_v<T>][kWidth],
          static_cast<std::int64_t>(std::numeric_limits<T>::min()),
          kHuge ? kLimit : static_cast<std::int64_t>(std::numeric_limits<T>::max())};
}

template <class T>
struct Conversion<T, std::enable_if_t<kIsInteger<T>>> {
  static constexpr IntegerKind kKind = KindOfInteger<T>();

  static bool Write(T value, cw::EncodableValue& to, Misfit& misfit) {
    if constexpr (kKind.most <= std::numeric_limits<std::int32_t>::max()) {
      to = static_cast<std::int32_t>(value);
      return true;
    } else if constexpr (std::is_unsigned_v<T>) {
      return WriteUnsigned(value, to, misfit);
    } else {
      to = static_cast<std::int64_t>(value);
      return true;
    }
  }
  static bool Read(const cw::EncodableValue& from, T& to, Misfit& misfit) {
    std::int64_t number = 0;
    if (!ReadInteger(from, kKind, number, misfit)) {
      return false;
    }
    to = static_cast<T>(number);
    return true;
  }
  static cw::EncodableValue Shape(OpenStructs& /*open*/) { return kKind.name; }
};

template <class T>
struct Conversion<T, std::enable_if_t<std::is_same_v<T, double> || std::is_same_v<T, float>>> {
  static bool Write(T value, cw::EncodableValue& to, Misfit& /*misfit*/) {
    to = static_cast<double>(value);
    return true;
  }
  static bool Read(const cw::EncodableValue& from, T& to, Misfit& misfit) {
    if constexpr (std::is_same_v<T, double>) {
      return ReadDouble(from, to, misfit);
    } else {
      return ReadFloat(from, to, misfit);
    }
  }
  static cw::EncodableValue Shape(OpenStructs& /*open*/) {
    return std::is_same_v<T, double> ? "double" : "float";
  }
};

template <>
struct Conversion<std::string> {
  static bool Write(std::string&& value, cw::EncodableValue& to, Misfit& /*misfit*/) {
    to = std::move(value);
    return true;
  }
  static bool Read(const cw::EncodableValue& from, std::string& to, Misfit& misfit) {
    return ReadText(from, to, misfit);
  }
  static cw::EncodableValue Shape(OpenStructs& /*open*/) { return "text"; }
};

template <>
struct Conversion<std::vector<std::uint8_t>> {
  static bool Write(std::vector<std::uint8_t>&& value, cw::EncodableValue& to, Misfit& /*misfit*/) {
    to = std::move(value);
    return true;
  }
  static bool Read(const cw::EncodableValue& from, std::vector<std::uint8_t>& to, Misfit& misfit) {
    return ReadBytes(from, to, misfit);
  }
  static cw::EncodableValue Shape(OpenStructs& /*open*/) { return "bytes"; }
};

// Lists of numbers travel as what holds them without loss.
template <class T>
using TypedNumber = std::conditional_t<
    std::is_floating_point_v<T>, T,
    std::conditional_t<(Conversion<T>::kKind.most <= std::numeric_limits<std::int32_t>::max()),
                       std::int32_t, std::int64_t>>;

template <class T>
struct Conversion<std::vector<T>,
                  std::enable_if_t<kIsInteger<T> && !std::is_same_v<T, std::uint8_t>>> {
  using Typed = std::vector<TypedNumber<T>>;

  static bool Write(std::vector<T>&& value, cw::EncodableValue& to, Misfit& misfit) {
    if (value.empty()) {
      to = cw::EncodableList();
      return true;
    }
    if constexpr (std::is_same_v<Typed, std::vector<T>>) {
      to = std::move(value);
      return true;
    } else {
      return WriteWider(value, to, misfit);
    }
  }
  static bool Read(const cw::EncodableValue& from, std::vector<T>& to, Misfit& misfit) {
    if (const auto* const typed = std::get_if<Typed>(&from);
        typed != nullptr && std::is_same_v<Typed, std::vector<T>>) {
      to.assign(typed->begin(), typed->end());
      return true;
    }
    std::vector<std::int64_t> numbers;
    if (!ReadIntegers(from, Conversion<T>::kKind, numbers, misfit)) {
      return false;
    }
    to.clear();
    to.reserve(numbers.size());
    for (const std::int64_t number : numbers) {
      to.push_back(static_cast<T>(number));
    }
    return true;
  }
  static cw::EncodableValue Shape(OpenStructs& open) {
    return ShapeIn("list", Conversion<T>::Shape(open));
  }

 private:
  static bool WriteWider(const std::vector<T>& value, cw::EncodableValue& to, Misfit& misfit) {
    Typed typed;
    typed.reserve(value.size());
    for (std::size_t i = 0; i < value.size(); ++i) {
      cw::EncodableValue checked;
      if (!Conversion<T>::Write(value[i], checked, misfit)) {
        return misfit.AtIndex(i);
      }
      typed.push_back(static_cast<TypedNumber<T>>(value[i]));
    }
    to = std::move(typed);
    return true;
  }
};

template <class T>
struct Conversion<std::vector<T>, std::enable_if_t<std::is_floating_point_v<T>>> {
  static bool Write(std::vector<T>&& value, cw::EncodableValue& to, Misfit& /*misfit*/) {
    if (value.empty()) {
      to = cw::EncodableList();
    } else {
      to = std::move(value);
    }
    return true;
  }
  static bool Read(const cw::EncodableValue& from, std::vector<T>& to, Misfit& misfit) {
    if constexpr (std::is_same_v<T, double>) {
      return ReadDoubles(from, to, misfit);
    } else {
      return ReadFloats(from, to, misfit);
    }
  }
  static cw::EncodableValue Shape(OpenStructs& open) {
    return ShapeIn("list", Conversion<T>::Shape(open));
  }
};

template <class T>
struct Conversion<std::vector<T>,
                  std::enable_if_t<!kIsInteger<T> && !std::is_floating_point_v<T>>> {
  static bool Write(std::vector<T>&& value, cw::EncodableValue& to, Misfit& misfit) {
    if (!OpenLevel(misfit)) {
      return false;
    }
    cw::EncodableList list(value.size());
    for (std::size_t i = 0; i < value.size(); ++i) {
      // Twice moved, because std::vector<bool> has no elements, only what converts to them.
      if (!Conversion<T>::Write(T(std::move(value[i])), list[i], misfit)) {
        return misfit.AtIndex(i);
      }
    }
    --misfit.depth;
    to = std::move(list);
    return true;
  }
  static bool Read(const cw::EncodableValue& from, std::vector<T>& to, Misfit& misfit) {
    const cw::EncodableList* const list = ReadList(from, misfit);
    if (list == nullptr) {
      return false;
    }
    to.clear();
    to.reserve(list->size());
    for (std::size_t i = 0; i < list->size(); ++i) {
      T element{};
      if (!Conversion<T>::Read((*list)[i], element, misfit)) {
        return misfit.AtIndex(i);
      }
      to.push_back(std::move(element));
    }
    return true;
  }
  static cw::EncodableValue Shape(OpenStructs& open) {
    return ShapeIn("list", Conversion<T>::Shape(open));
  }
};

template <class Map>
struct MapConversion {
  using Mapped = typename Map::mapped_type;

  static bool Write(Map&& value, cw::EncodableValue& to, Misfit& misfit) {
    if (!OpenLevel(misfit)) {
      return false;
    }
    cw::EncodableMap map;
    for (auto& [key, mapped] : value) {
      cw::EncodableValue written;
      if (!Conversion<Mapped>::Write(std::move(mapped), written, misfit)) {
        return misfit.AtKey(key);
      }
      Put(map, key, std::move(written));
    }
    --misfit.depth;
    to = std::move(map);
    return true;
  }
  static bool Read(const cw::EncodableValue& from, Map& to, Misfit& misfit) {
    const cw::EncodableMap* const map = ReadMap(from, true, misfit);
    if (map == nullptr) {
      return false;
    }
    to.clear();
    for (const auto& [key, mapped] : *map) {
      if (!Conversion<Mapped>::Read(mapped, to[*key.AsString()], misfit)) {
        return misfit.AtKey(*key.AsString());
      }
    }
    return true;
  }
  static cw::EncodableValue Shape(OpenStructs& open) {
    return ShapeIn("map", Conversion<Mapped>::Shape(open));
  }
};

template <class T>
struct Conversion<std::map<std::string, T>> : MapConversion<std::map<std::string, T>> {};
template <class T>
struct Conversion<std::unordered_map<std::string, T>>
    : MapConversion<std::unordered_map<std::string, T>> {};

template <class T>
struct Conversion<std::optional<T>> {
  static bool Write(std::optional<T>&& value, cw::EncodableValue& to, Misfit& misfit) {
    return !value || Conversion<T>::Write(*std::move(value), to, misfit);
  }
  static bool Read(const cw::EncodableValue& from, std::optional<T>& to, Misfit& misfit) {
    to.reset();
    return from.IsNull() || Conversion<T>::Read(from, to.emplace(), misfit);
  }
  static cw::EncodableValue Shape(OpenStructs& open) {
    return ShapeIn("optional", Conversion<T>::Shape(open));
  }
};

template <class T>
struct Conversion<T, std::enable_if_t<kIsNamedEnum<T>>> {
  static constexpr auto kNames = TarvEnumNames(static_cast<const T*>(nullptr));
  static constexpr const char* kType = TarvValueName(static_cast<const T*>(nullptr));

  static bool Write(T value, cw::EncodableValue& to, Misfit& misfit) {
    return WriteEnum(static_cast<std::int64_t>(value), kType, kNames.data(), kNames.size(), to,
                     misfit);
  }
  static bool Read(const cw::EncodableValue& from, T& to, Misfit& misfit) {
    std::int64_t number = 0;
    if (!ReadEnum(from, kType, kNames.data(), kNames.size(), number, misfit)) {
      return false;
    }
    to = static_cast<T>(number);
    return true;
  }
  static cw::EncodableValue Shape(OpenStructs& /*open*/) {
    return ShapeOfEnum(kType, kNames.data(), kNames.size());
  }
};

template <class T>
inline constexpr bool kIsOptional = false;
template <class T>
inline constexpr bool kIsOptional<std::optional<T>> = true;

template <class T>
struct Conversion<T, std::enable_if_t<kIsStruct<T>>> {
  static constexpr const char* kType = TarvValueName(static_cast<const T*>(nullptr));

  static bool Write(T&& value, cw::EncodableValue& to, Misfit& misfit) {
    if (!OpenLevel(misfit)) {
      return false;
    }
    cw::EncodableMap map;
    bool fits = true;
    EachMember([&](const char* name, auto member) {
      fits = fits && WriteMember(name, std::move(value.*member), map, misfit);
    });
    --misfit.depth;
    to = std::move(map);
    return fits;
  }
  static bool Read(const cw::EncodableValue& from, T& to, Misfit& misfit) {
    const cw::EncodableMap* const map = ReadMap(from, false, misfit);
    bool fits = map != nullptr;
    EachMember([&](const char* name, auto member) {
      fits = fits && ReadMember(*map, name, to.*member, misfit);
    });
    return fits;
  }
  static cw::EncodableValue Shape(OpenStructs& open) {
    if (IsOpen(open, kType)) {
      return ShapeOfOpenStruct(kType);
    }
    open.emplace_back(kType);
    cw::EncodableList members;
    EachMember([&](const char* name, auto member) {
      using Member = std::decay_t<decltype(std::declval<T&>().*member)>;
      members.push_back(ShapeOfMember(name, Conversion<Member>::Shape(open)));
    });
    open.pop_back();
    return ShapeOfStruct(kType, std::move(members));
  }

 private:
  template <class Visitor>
  static void EachMember(Visitor&& visitor) {
    TarvEachMember(static_cast<const T*>(nullptr), std::forward<Visitor>(visitor));
  }

  template <class Member>
  static bool WriteMember(const char* name, Member&& member, cw::EncodableMap& to, Misfit& misfit) {
    if constexpr (kIsOptional<Member>) {
      if (!member) {
        return true;
      }
    }
    cw::EncodableValue written;
    if (!Conversion<Member>::Write(std::forward<Member>(member), written, misfit)) {
      return misfit.InMember(name);
    }
    Put(to, name, std::move(written));
    return true;
  }

  template <class Member>
  static bool ReadMember(const cw::EncodableMap& from, const char* name, Member& to,
                         Misfit& misfit) {
    const cw::EncodableValue* const found = cw::Find(from, name);
    if (found != nullptr) {
      return Conversion<Member>::Read(*found, to, misfit) || misfit.InMember(name);
    }
    if constexpr (kIsOptional<Member>) {
      to.reset();
      return true;
    } else {
      return misfit.Report("missing") || misfit.InMember(name);
    }
  }
};

}  // namespace tarv::details

#endif  // TARV_CALLS_CONVERSION_H
