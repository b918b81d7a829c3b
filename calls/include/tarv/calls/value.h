// Structures as message payloads: TARV_VALUE, TARV_EMPTY_VALUE, TARV_ENUM.
//
//   namespace counting {
//   enum class Kind { kWords, kLines };
//   struct Texts { std::vector<std::string> texts; std::optional<Kind> kind; };
//   TARV_ENUM(Kind, kWords, kLines)
//   TARV_VALUE(Texts, texts, kind)
//   }
//
// A structure travels as a map with text keys, so that Dart and plain handlers read it, too:
// {"texts": ["a b"], "kind": "kWords"}. The types that a member, a parameter or a result may have:
//
//   C++                                       on the wire
//   bool                                      bool
//   integers up to 32 bits, std::uint32_t     int32; int64 above (reading takes either that fits)
//   other integers                            int64; above its range: an error
//   float, double                             double (reading takes integers that a double holds)
//   std::string                               text
//   std::vector<std::uint8_t>                 bytes
//   std::vector of another number             int32, int64, double or float list; an empty one as a
//                                             plain empty list, which Dart reads like any other;
//                                             reading takes every kind of list
//   std::vector of anything else              list
//   std::map, std::unordered_map of text      map
//   std::optional                             what it holds; an empty one is left out of a
//                                             structure and null elsewhere; reading takes both
//   enumerations with TARV_ENUM               the name, as a text
//   structures with TARV_VALUE                map; reading ignores members that it does not know
//   cw::EncodableValue                        itself
#ifndef TARV_CALLS_VALUE_H
#define TARV_CALLS_VALUE_H

#include <cw/encodable_value.h>
#include <tarv/calls/conversion.h>
#include <tarv/calls/misfit.h>
#include <tarv/calls/value_macros.h>

#include <array>
#include <string_view>
#include <utility>

// TARV_VALUE(Type, member, ...): makes the structure a value of its 1 to 32 members, in this order.
// Stands in the namespace of the type, which must have a default constructor.
#define TARV_VALUE(Type, ...)                                       \
  template <class TarvVisitor>                                      \
  void TarvEachMember(const Type*, TarvVisitor&& tarv_visit) {      \
    TARV_DETAILS_EACH(TARV_DETAILS_VISIT_MEMBER, Type, __VA_ARGS__) \
  }                                                                 \
  [[maybe_unused]] constexpr const char* TarvValueName(const Type*) { return #Type; }

// TARV_EMPTY_VALUE(Type): the same for a structure without members: an empty map.
#define TARV_EMPTY_VALUE(Type)                       \
  template <class TarvVisitor>                       \
  void TarvEachMember(const Type*, TarvVisitor&&) {} \
  [[maybe_unused]] constexpr const char* TarvValueName(const Type*) { return #Type; }

// TARV_ENUM(Enum, kA, ...): lets the values of the enumeration, 1 to 32, travel by these names.
// Stands in the namespace of the enumeration.
#define TARV_ENUM(Enum, ...)                                                       \
  constexpr auto TarvEnumNames(const Enum*) {                                      \
    return std::array<::tarv::details::EnumName, TARV_DETAILS_COUNT(__VA_ARGS__)>{ \
        {TARV_DETAILS_EACH(TARV_DETAILS_ENUM_NAME, Enum, __VA_ARGS__)}};           \
  }                                                                                \
  [[maybe_unused]] constexpr const char* TarvValueName(const Enum*) { return #Enum; }

#define TARV_DETAILS_VISIT_MEMBER(Type, member) tarv_visit(#member, &Type::member);
#define TARV_DETAILS_ENUM_NAME(Enum, name) \
  ::tarv::details::EnumName{#name, static_cast<std::int64_t>(Enum::name)},

namespace tarv {

// The value as it travels. Throws ValueError for what cannot: an integer above int64, an
// enumeration's value without a name, a cw::EncodableValue that the codec cannot write. `root` is
// how the error calls the value.
template <class T>
cw::EncodableValue ToEncodable(T value, std::string_view root = "value") {
  cw::EncodableValue result;
  details::Misfit misfit;
  if (!details::Conversion<T>::Write(std::move(value), result, misfit)) {
    throw ValueError(misfit.GetText(root));
  }
  return result;
}

// The T that came as `value`. Throws ValueError when it does not fit, with the place.
template <class T>
T FromEncodable(const cw::EncodableValue& value, std::string_view root = "value") {
  T result{};
  details::Misfit misfit;
  if (!details::Conversion<T>::Read(value, result, misfit)) {
    throw ValueError(misfit.GetText(root));
  }
  return result;
}

// The shape of values of the type T, as tools show it: a text for a simple kind ("bool", "int32",
// "uint64", "double", "text", "bytes", "any"), otherwise one of the maps
//   {"list": shape}   {"map": shape}   {"optional": shape}   {"enum": name, "names": [text]}
//   {"struct": name, "members": [{"name": text, "shape": shape}]}
// A structure inside itself is {"struct": name} alone.
template <class T>
cw::EncodableValue ShapeOf() {
  details::OpenStructs open;
  return details::Conversion<T>::Shape(open);
}

}  // namespace tarv

#endif  // TARV_CALLS_VALUE_H
