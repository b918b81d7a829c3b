// The one rule by which size-versioned C structures are read and written.
//
// Procedure tables, slot structures and views begin with their own size in bytes, as the side that
// allocated them knows it. A field is there only when that size covers the whole field, so old and
// new sides work with each other: nobody reads or writes past what the other side allocated.
#ifndef QUARN_SIZED_STRUCT_H
#define QUARN_SIZED_STRUCT_H

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <type_traits>

namespace quarn {

// Every field of a sized structure is a 64-bit word: a number or a pointer.
constexpr std::size_t kFieldSize = 8;

// Whether a structure of `struct_size` bytes holds all of the field at `offset`.
constexpr bool FieldFits(std::uint64_t struct_size, std::size_t offset) {
  return struct_size > offset + (kFieldSize - 1);
}

// The byte offset of a field, without touching an object that may be shorter than its type.
template <class Struct, class Field>
std::size_t OffsetOf(Field Struct::*field) {
  // NOLINTNEXTLINE(bugprone-sizeof-expression): the size of a pointer is what is asked for.
  static_assert(std::is_standard_layout_v<Struct> && sizeof(Field) == kFieldSize);
  static const Struct kProbe{};
  return static_cast<std::size_t>(reinterpret_cast<const char*>(&(kProbe.*field)) -
                                  reinterpret_cast<const char*>(&kProbe));
}

// The size that the structure states in its first 8 bytes.
template <class Struct>
std::uint64_t StatedSize(const Struct* structure) {
  std::uint64_t size = 0;
  std::memcpy(&size, structure, sizeof(size));
  return size;
}

// The field's value, or null (zero) when the structure is null or too short to hold it.
template <class Struct, class Field>
Field ReadField(const Struct* structure, Field Struct::*field) {
  Field value{};
  if (structure == nullptr) {
    return value;
  }
  const std::size_t offset = OffsetOf(field);
  if (FieldFits(StatedSize(structure), offset)) {
    std::memcpy(&value, reinterpret_cast<const char*>(structure) + offset, kFieldSize);
  }
  return value;
}

// Fills a structure that the caller allocated with `size` bytes: zeroes them, states the size, and
// then writes, field after field, what fits.
template <class Struct>
class StructFiller {
 public:
  // The size is stored whatever its value, even one too small to hold it.
  StructFiller(Struct* structure, std::uint64_t size)
      : bytes_(reinterpret_cast<char*>(structure)), size_(size) {
    std::memset(bytes_, 0, size);
    std::memcpy(bytes_, &size_, sizeof(size_));
  }

  template <class Field>
  StructFiller& Fill(Field Struct::*field, std::common_type_t<Field> value) {
    const std::size_t offset = OffsetOf(field);
    if (FieldFits(size_, offset)) {
      std::memcpy(bytes_ + offset, &value, kFieldSize);
    }
    return *this;
  }

 private:
  char* bytes_;
  std::uint64_t size_;
};

}  // namespace quarn

#endif  // QUARN_SIZED_STRUCT_H
