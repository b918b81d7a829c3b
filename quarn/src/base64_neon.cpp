// Base64 by the vector unit of AArch64, which every such CPU has.
//
// Its loads spread groups of three or four bytes over as many registers, its stores put them
// together again, and its table look-up covers the whole alphabet at once.
#include "base64_coders.h"

#if defined(__aarch64__)

#include <arm_neon.h>

#include <array>

namespace quarn::base64 {
namespace {

constexpr std::size_t kBlockBytes = 48;
constexpr std::size_t kBlockLength = 64;

// Set in the entry of each character of the alphabet. The look-up gives 0 for any other.
constexpr std::uint8_t kKnown = 0x80;

constexpr std::array<std::uint8_t, 128> MakeNumbers() {
  std::array<std::uint8_t, 128> numbers{};
  for (std::uint8_t i = 0; i < 64; ++i) {
    numbers[static_cast<std::uint8_t>(kAlphabet[i])] = kKnown | i;
  }
  return numbers;
}

constexpr std::array<std::uint8_t, 128> kNumbers = MakeNumbers();

std::size_t EncodeNeon(const std::uint8_t* data, std::size_t size, char* out) {
  const uint8x16x4_t alphabet = vld1q_u8_x4(reinterpret_cast<const std::uint8_t*>(kAlphabet));
  const uint8x16_t six_bits = vdupq_n_u8(0x3F);
  std::size_t done = 0;
  for (; size - done >= kBlockBytes; done += kBlockBytes, out += kBlockLength) {
    const uint8x16x3_t bytes = vld3q_u8(data + done);
    uint8x16x4_t text;
    text.val[0] = vshrq_n_u8(bytes.val[0], 2);
    text.val[1] = vandq_u8(vsliq_n_u8(vshrq_n_u8(bytes.val[1], 4), bytes.val[0], 4), six_bits);
    text.val[2] = vandq_u8(vsliq_n_u8(vshrq_n_u8(bytes.val[2], 6), bytes.val[1], 2), six_bits);
    text.val[3] = vandq_u8(bytes.val[2], six_bits);
    for (uint8x16_t& characters : text.val) {
      characters = vqtbl4q_u8(alphabet, characters);
    }
    vst4q_u8(reinterpret_cast<std::uint8_t*>(out), text);
  }
  return done;
}

std::size_t DecodeNeon(const char* text, std::size_t length, std::uint8_t* out) {
  const uint8x16x4_t first_half = vld1q_u8_x4(kNumbers.data());
  const uint8x16x4_t second_half = vld1q_u8_x4(kNumbers.data() + 64);
  std::size_t done = 0;
  for (; length - done >= kBlockLength; done += kBlockLength, out += kBlockBytes) {
    uint8x16x4_t numbers = vld4q_u8(reinterpret_cast<const std::uint8_t*>(text + done));
    uint8x16_t known = vdupq_n_u8(kKnown);
    for (uint8x16_t& number : numbers.val) {
      const uint8x16_t in_second = vqtbl4q_u8(second_half, vsubq_u8(number, vdupq_n_u8(64)));
      number = vorrq_u8(vqtbl4q_u8(first_half, number), in_second);
      known = vandq_u8(known, number);
    }
    if (vminvq_u8(known) != kKnown) {
      break;
    }
    // Shifting a number drops its mark. The last one is not shifted, so its mark is masked out.
    uint8x16x3_t bytes;
    bytes.val[0] = vsriq_n_u8(vshlq_n_u8(numbers.val[0], 2), vshlq_n_u8(numbers.val[1], 2), 6);
    bytes.val[1] = vsriq_n_u8(vshlq_n_u8(numbers.val[1], 4), vshlq_n_u8(numbers.val[2], 2), 4);
    bytes.val[2] =
        vorrq_u8(vshlq_n_u8(numbers.val[2], 6), vandq_u8(numbers.val[3], vdupq_n_u8(0x3F)));
    vst3q_u8(out, bytes);
  }
  return done;
}

}  // namespace

std::vector<Coder> GetVectorCoders() {
  return {{"Neon", [] { return true; }, &EncodeNeon, &DecodeNeon}};
}

}  // namespace quarn::base64

#endif  // __aarch64__
