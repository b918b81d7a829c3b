// The bounds of the standard codec. Bytes come from other processes and are not trusted: what
// exceeds a bound is refused with std::length_error before memory is taken for it.
#ifndef CW_CODEC_LIMITS_H
#define CW_CODEC_LIMITS_H

#include <cstddef>

namespace cw {

// Lists and maps that may be open inside each other, when reading and when writing. Reading,
// writing, comparing and destroying a value recurse once a level; this keeps them within a fraction
// of the smallest common thread stack. Real payloads nest a dozen levels.
inline constexpr std::size_t kMaxNesting = 512;

// Items that reading one message may make up in all because its bytes do not hold them: list
// elements, map entries, elements of typed lists, bytes of strings. A truncated message still gives
// a value up to here, as the format's peers expect; a header that claims more is an attack or
// damage beyond use.
inline constexpr std::size_t kMaxMadeUpItems = 65536;

// Reading n bytes never holds more memory than
//   n * (sizeof(EncodableValue) + kDecodeOverheadPerByte) + kDecodeFixedMemory.
// The first term covers the densest input there is (one-byte values in a list, two-byte entries in
// a map with their tree nodes), the second the made-up items.
inline constexpr std::size_t kDecodeOverheadPerByte = 64;
inline constexpr std::size_t kDecodeFixedMemory = std::size_t{4} << 20;

// Lines that reading one message writes to standard error, before one that says that there were
// more. A damaged message has a few faults; a hostile one has a fault a byte, and each line is
// sixty times as long.
inline constexpr std::size_t kMaxReportedFaults = 100;

}  // namespace cw

#endif  // CW_CODEC_LIMITS_H
