// Base64 by the vector unit of x86-64: SSSE3 and AVX2, as far as the CPU has them.
//
// Encoding spreads each group of three bytes over four lanes by a shuffle and two multiplications
// (which shift lanes by different amounts), and turns the 6-bit numbers into characters by adding
// an offset that depends on the range they lie in. Decoding looks up, by the two halves of each
// character, in which ranges it may lie and which offset takes it back, and multiplies and adds
// neighbours together.
#include "base64_coders.h"

#if defined(__x86_64__)

#include <immintrin.h>
// Clang does not know the name of C's bool that this header uses.
#if __has_include(<sys/platform/x86.h>) && !defined(__clang__)
#include <sys/platform/x86.h>
#endif

#define QUARN_SSSE3 __attribute__((target("ssse3")))
#define QUARN_AVX2 __attribute__((target("avx2")))

namespace quarn::base64 {
namespace {

constexpr std::size_t kSsse3Bytes = 12;
constexpr std::size_t kSsse3Length = 16;
constexpr std::size_t kAvx2Bytes = 24;
constexpr std::size_t kAvx2Length = 32;

// ---- Encoding

// b0 b1 b2 as b1 b0 b2 b1: where each 6-bit number lies within 16 bits.
QUARN_SSSE3 inline __m128i EncodeShuffle() {
  return _mm_setr_epi8(1, 0, 2, 1, 4, 3, 5, 4, 7, 6, 8, 7, 10, 9, 11, 10);
}

// By the range of a 6-bit number: what to add for its character. Ranges: 13 is A to Z, 0 is a to z,
// 1 to 10 are the digits, 11 and 12 the two signs.
QUARN_SSSE3 inline __m128i EncodeOffsets() {
  return _mm_setr_epi8('a' - 26, '0' - 52, '0' - 52, '0' - 52, '0' - 52, '0' - 52, '0' - 52,
                       '0' - 52, '0' - 52, '0' - 52, '0' - 52, '+' - 62, '/' - 63, 'A', 0, 0);
}

QUARN_SSSE3 inline __m128i Encode12(__m128i bytes) {
  const __m128i spread = _mm_shuffle_epi8(bytes, EncodeShuffle());
  const __m128i even = _mm_mulhi_epu16(_mm_and_si128(spread, _mm_set1_epi32(0x0FC0FC00)),
                                       _mm_set1_epi32(0x04000040));
  const __m128i odd = _mm_mullo_epi16(_mm_and_si128(spread, _mm_set1_epi32(0x003F03F0)),
                                      _mm_set1_epi32(0x01000010));
  const __m128i numbers = _mm_or_si128(even, odd);
  const __m128i upper_case = _mm_cmpgt_epi8(_mm_set1_epi8(26), numbers);
  const __m128i range = _mm_or_si128(_mm_subs_epu8(numbers, _mm_set1_epi8(51)),
                                     _mm_and_si128(upper_case, _mm_set1_epi8(13)));
  return _mm_add_epi8(numbers, _mm_shuffle_epi8(EncodeOffsets(), range));
}

QUARN_SSSE3 std::size_t EncodeSsse3(const std::uint8_t* data, std::size_t size, char* out) {
  std::size_t done = 0;
  // Reads 16 bytes for 12.
  for (; size - done >= 16; done += kSsse3Bytes, out += kSsse3Length) {
    const __m128i bytes = _mm_loadu_si128(reinterpret_cast<const __m128i*>(data + done));
    _mm_storeu_si128(reinterpret_cast<__m128i*>(out), Encode12(bytes));
  }
  return done;
}

// Twelve bytes in each half.
QUARN_AVX2 inline __m256i Encode24(__m256i bytes) {
  const __m256i spread = _mm256_shuffle_epi8(bytes, _mm256_broadcastsi128_si256(EncodeShuffle()));
  const __m256i even = _mm256_mulhi_epu16(_mm256_and_si256(spread, _mm256_set1_epi32(0x0FC0FC00)),
                                          _mm256_set1_epi32(0x04000040));
  const __m256i odd = _mm256_mullo_epi16(_mm256_and_si256(spread, _mm256_set1_epi32(0x003F03F0)),
                                         _mm256_set1_epi32(0x01000010));
  const __m256i numbers = _mm256_or_si256(even, odd);
  const __m256i upper_case = _mm256_cmpgt_epi8(_mm256_set1_epi8(26), numbers);
  const __m256i range = _mm256_or_si256(_mm256_subs_epu8(numbers, _mm256_set1_epi8(51)),
                                        _mm256_and_si256(upper_case, _mm256_set1_epi8(13)));
  const __m256i offsets = _mm256_broadcastsi128_si256(EncodeOffsets());
  return _mm256_add_epi8(numbers, _mm256_shuffle_epi8(offsets, range));
}

QUARN_AVX2 std::size_t EncodeAvx2(const std::uint8_t* data, std::size_t size, char* out) {
  std::size_t done = 0;
  // Reads 28 bytes for 24.
  for (; size - done >= 28; done += kAvx2Bytes, out += kAvx2Length) {
    const __m256i bytes =
        _mm256_loadu2_m128i(reinterpret_cast<const __m128i*>(data + done + kSsse3Bytes),
                            reinterpret_cast<const __m128i*>(data + done));
    _mm256_storeu_si256(reinterpret_cast<__m256i*>(out), Encode24(bytes));
  }
  return done + EncodeSsse3(data + done, size - done, out);
}

// ---- Decoding

// A character is foreign when the entries of its halves share a bit.
QUARN_SSSE3 inline __m128i ForeignByLowHalf() {
  return _mm_setr_epi8(0x15, 0x11, 0x11, 0x11, 0x11, 0x11, 0x11, 0x11, 0x11, 0x11, 0x13, 0x1A, 0x1B,
                       0x1B, 0x1B, 0x1A);
}
QUARN_SSSE3 inline __m128i ForeignByHighHalf() {
  return _mm_setr_epi8(0x10, 0x10, 0x01, 0x02, 0x04, 0x08, 0x04, 0x08, 0x10, 0x10, 0x10, 0x10, 0x10,
                       0x10, 0x10, 0x10);
}

// The offsets that take characters back to their numbers, by their high half; by one less for '/',
// whose high half it shares with '+'.
QUARN_SSSE3 inline __m128i DecodeOffsets() {
  return _mm_setr_epi8(0, 63 - '/', 62 - '+', 52 - '0', -'A', -'A', 26 - 'a', 26 - 'a', 0, 0, 0, 0,
                       0, 0, 0, 0);
}

// Three bytes from each 24-bit number, most significant first, to the front.
QUARN_SSSE3 inline __m128i DecodeShuffle() {
  return _mm_setr_epi8(2, 1, 0, 6, 5, 4, 10, 9, 8, 14, 13, 12, -1, -1, -1, -1);
}

// Twelve bytes from 16 characters, into the front of `bytes`. False when one is foreign.
QUARN_SSSE3 inline bool Decode16(__m128i text, __m128i* bytes) {
  const __m128i half = _mm_set1_epi8(0x0F);
  const __m128i high = _mm_and_si128(_mm_srli_epi32(text, 4), half);
  const __m128i low = _mm_and_si128(text, half);
  const __m128i foreign = _mm_and_si128(_mm_shuffle_epi8(ForeignByLowHalf(), low),
                                        _mm_shuffle_epi8(ForeignByHighHalf(), high));
  if (_mm_movemask_epi8(_mm_cmpeq_epi8(foreign, _mm_setzero_si128())) != 0xFFFF) {
    return false;
  }
  const __m128i slash = _mm_cmpeq_epi8(text, _mm_set1_epi8('/'));
  const __m128i offsets = _mm_shuffle_epi8(DecodeOffsets(), _mm_add_epi8(slash, high));
  const __m128i numbers = _mm_add_epi8(text, offsets);
  const __m128i pairs = _mm_maddubs_epi16(numbers, _mm_set1_epi32(0x01400140));
  const __m128i groups = _mm_madd_epi16(pairs, _mm_set1_epi32(0x00011000));
  *bytes = _mm_shuffle_epi8(groups, DecodeShuffle());
  return true;
}

QUARN_SSSE3 inline void Store12(__m128i bytes, std::uint8_t* out) {
  _mm_storel_epi64(reinterpret_cast<__m128i*>(out), bytes);
  _mm_storeu_si32(out + 8, _mm_srli_si128(bytes, 8));
}

QUARN_SSSE3 std::size_t DecodeSsse3(const char* text, std::size_t length, std::uint8_t* out) {
  std::size_t done = 0;
  __m128i bytes;
  for (; length - done >= kSsse3Length; done += kSsse3Length, out += kSsse3Bytes) {
    if (!Decode16(_mm_loadu_si128(reinterpret_cast<const __m128i*>(text + done)), &bytes)) {
      break;
    }
    Store12(bytes, out);
  }
  return done;
}

// As Decode16, for 24 bytes.
QUARN_AVX2 inline bool Decode32(__m256i text, __m256i* bytes) {
  const __m256i half = _mm256_set1_epi8(0x0F);
  const __m256i high = _mm256_and_si256(_mm256_srli_epi32(text, 4), half);
  const __m256i low = _mm256_and_si256(text, half);
  const __m256i by_low = _mm256_shuffle_epi8(_mm256_broadcastsi128_si256(ForeignByLowHalf()), low);
  const __m256i by_high =
      _mm256_shuffle_epi8(_mm256_broadcastsi128_si256(ForeignByHighHalf()), high);
  if (_mm256_testz_si256(by_low, by_high) == 0) {
    return false;
  }
  const __m256i slash = _mm256_cmpeq_epi8(text, _mm256_set1_epi8('/'));
  const __m256i offsets = _mm256_shuffle_epi8(_mm256_broadcastsi128_si256(DecodeOffsets()),
                                              _mm256_add_epi8(slash, high));
  const __m256i numbers = _mm256_add_epi8(text, offsets);
  const __m256i pairs = _mm256_maddubs_epi16(numbers, _mm256_set1_epi32(0x01400140));
  const __m256i groups = _mm256_madd_epi16(pairs, _mm256_set1_epi32(0x00011000));
  const __m256i halves = _mm256_shuffle_epi8(groups, _mm256_broadcastsi128_si256(DecodeShuffle()));
  *bytes = _mm256_permutevar8x32_epi32(halves, _mm256_setr_epi32(0, 1, 2, 4, 5, 6, 3, 7));
  return true;
}

QUARN_AVX2 std::size_t DecodeAvx2(const char* text, std::size_t length, std::uint8_t* out) {
  std::size_t done = 0;
  __m256i bytes;
  // Writes 32 bytes for 24: 44 characters have room for 33.
  for (; length - done >= 44; done += kAvx2Length, out += kAvx2Bytes) {
    if (!Decode32(_mm256_loadu_si256(reinterpret_cast<const __m256i*>(text + done)), &bytes)) {
      return done;
    }
    _mm256_storeu_si256(reinterpret_cast<__m256i*>(out), bytes);
  }
  return done + DecodeSsse3(text + done, length - done, out);
}

// ---- What the CPU has

// The C library knows since it started. Who asks the compiler has every process that loads this
// library ask the processor once more, which takes 60 us in a virtual machine.
#if defined(CPU_FEATURE_ACTIVE)
bool HasSsse3() { return CPU_FEATURE_ACTIVE(SSSE3); }
bool HasAvx2() { return CPU_FEATURE_ACTIVE(AVX2); }
#else
bool HasSsse3() { return __builtin_cpu_supports("ssse3") != 0; }
bool HasAvx2() { return __builtin_cpu_supports("avx2") != 0; }
#endif

}  // namespace

std::vector<Coder> GetVectorCoders() {
  return {{"Avx2", &HasAvx2, &EncodeAvx2, &DecodeAvx2},
          {"Ssse3", &HasSsse3, &EncodeSsse3, &DecodeSsse3}};
}

}  // namespace quarn::base64

#endif  // __x86_64__
