// The first byte of a size that takes more than one.
#ifndef CW_SRC_SIZE_BYTES_H
#define CW_SRC_SIZE_BYTES_H

#include <cstdint>

namespace cw::internal {

static_assert(__BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__,
              "numbers are little-endian in the format and copied as they lie in memory");

inline constexpr std::uint8_t kSizeIs16Bit = 254;
inline constexpr std::uint8_t kSizeIs32Bit = 255;

}  // namespace cw::internal

#endif  // CW_SRC_SIZE_BYTES_H
