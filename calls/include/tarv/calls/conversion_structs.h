// How structures are written, read and described, member by member.
#ifndef TARV_CALLS_CONVERSION_STRUCTS_H
#define TARV_CALLS_CONVERSION_STRUCTS_H

#include <cw/encodable_value.h>
#include <tarv/calls/conversion_base.h>

#include <optional>
#include <type_traits>
#include <utility>

namespace tarv::details {

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

#endif  // TARV_CALLS_CONVERSION_STRUCTS_H
