// How values without parts are written, read and described: anything, bools, numbers, texts and
// enumerations.
#ifndef TARV_CALLS_CONVERSION_SCALARS_H
#define TARV_CALLS_CONVERSION_SCALARS_H

#include <cw/encodable_value.h>
#include <tarv/calls/conversion_base.h>

#include <cstddef>
#include <cstdint>
#include <limits>
#include <string>
#include <type_traits>
#include <utility>

namespace tarv::details {

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

}  // namespace tarv::details

#endif  // TARV_CALLS_CONVERSION_SCALARS_H
