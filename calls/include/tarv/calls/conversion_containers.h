// How bytes, lists, maps and optional values are written, read and described.
#ifndef TARV_CALLS_CONVERSION_CONTAINERS_H
#define TARV_CALLS_CONVERSION_CONTAINERS_H

#include <cw/encodable_value.h>
#include <tarv/calls/conversion_scalars.h>

#include <cstddef>
#include <cstdint>
#include <limits>
#include <map>
#include <optional>
#include <string>
#include <type_traits>
#include <unordered_map>
#include <utility>
#include <vector>

namespace tarv::details {

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

// Lists of numbers travel as lists of the narrowest of these types that holds each of them.
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
    cw::EncodableList numbers;
    const cw::EncodableList* const list = ReadList(from, numbers, misfit);
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

}  // namespace tarv::details

#endif  // TARV_CALLS_CONVERSION_CONTAINERS_H
