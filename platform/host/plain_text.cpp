#include "plain_text.h"

#include <algorithm>

#if defined(__x86_64__)
#include <immintrin.h>
// Clang does not know the name of C's bool that this header uses.
#if __has_include(<sys/platform/x86.h>) && !defined(__clang__)
#include <sys/platform/x86.h>
#endif
#elif defined(__aarch64__)
#include <arm_neon.h>
#endif

namespace RuntimeManager::host {
namespace {

bool IsAlwaysSupported() { return true; }

#if defined(__x86_64__)

#define HOST_AVX2 __attribute__((target("avx2")))

// Each byte 0xFF where the character is strange. As signed numbers, those past ASCII are below the
// blank, too.
inline __m128i Strange(__m128i text) {
  const __m128i low = _mm_cmplt_epi8(text, _mm_set1_epi8(' '));
  const __m128i quote = _mm_cmpeq_epi8(text, _mm_set1_epi8('"'));
  const __m128i slash = _mm_cmpeq_epi8(text, _mm_set1_epi8('\\'));
  const __m128i rubout = _mm_cmpeq_epi8(text, _mm_set1_epi8(0x7f));
  return _mm_or_si128(_mm_or_si128(low, quote), _mm_or_si128(slash, rubout));
}

std::size_t SkipPlainSse2(const unsigned char* text, std::size_t size) {
  constexpr std::size_t kBlock = sizeof(__m128i);
  std::size_t at = 0;
  for (; size - at >= kBlock; at += kBlock) {
    const __m128i block = _mm_loadu_si128(reinterpret_cast<const __m128i*>(text + at));
    if (const int found = _mm_movemask_epi8(Strange(block)); found != 0) {
      return at + static_cast<std::size_t>(__builtin_ctz(static_cast<unsigned>(found)));
    }
  }
  return at;
}

HOST_AVX2 inline __m256i Strange(__m256i text) {
  const __m256i low = _mm256_cmpgt_epi8(_mm256_set1_epi8(' '), text);
  const __m256i quote = _mm256_cmpeq_epi8(text, _mm256_set1_epi8('"'));
  const __m256i slash = _mm256_cmpeq_epi8(text, _mm256_set1_epi8('\\'));
  const __m256i rubout = _mm256_cmpeq_epi8(text, _mm256_set1_epi8(0x7f));
  return _mm256_or_si256(_mm256_or_si256(low, quote), _mm256_or_si256(slash, rubout));
}

HOST_AVX2 inline __m256i StrangeAt(const unsigned char* text) {
  return Strange(_mm256_loadu_si256(reinterpret_cast<const __m256i*>(text)));
}

HOST_AVX2 std::size_t SkipPlainAvx2(const unsigned char* text, std::size_t size) {
  constexpr std::size_t kBlock = sizeof(__m256i);
  std::size_t at = 0;
  for (; size - at >= 4 * kBlock; at += 4 * kBlock) {
    const __m256i first = _mm256_or_si256(StrangeAt(text + at), StrangeAt(text + at + kBlock));
    const __m256i second =
        _mm256_or_si256(StrangeAt(text + at + 2 * kBlock), StrangeAt(text + at + 3 * kBlock));
    const __m256i found = _mm256_or_si256(first, second);
    if (_mm256_testz_si256(found, found) == 0) {
      break;
    }
  }
  return at + SkipPlainSse2(text + at, size - at);
}

// The C library knows since it started. Who asks the compiler has every process that loads this
// library ask the processor once more, which takes 60 us in a virtual machine.
#if defined(CPU_FEATURE_ACTIVE)
bool HasAvx2() { return CPU_FEATURE_ACTIVE(AVX2); }
#else
bool HasAvx2() { return __builtin_cpu_supports("avx2") != 0; }
#endif

constexpr PlainSearch kVectorSearches[] = {{"AVX2", &HasAvx2, &SkipPlainAvx2},
                                           {"SSE2", &IsAlwaysSupported, &SkipPlainSse2}};

#elif defined(__aarch64__)

std::size_t SkipPlainNeon(const unsigned char* text, std::size_t size) {
  constexpr std::size_t kBlock = sizeof(uint8x16_t);
  std::size_t at = 0;
  for (; size - at >= kBlock; at += kBlock) {
    const uint8x16_t block = vld1q_u8(text + at);
    const uint8x16_t past = vcgeq_u8(block, vdupq_n_u8(0x7f));
    const uint8x16_t low = vcltq_u8(block, vdupq_n_u8(' '));
    const uint8x16_t quote = vceqq_u8(block, vdupq_n_u8('"'));
    const uint8x16_t slash = vceqq_u8(block, vdupq_n_u8('\\'));
    if (vmaxvq_u8(vorrq_u8(vorrq_u8(past, low), vorrq_u8(quote, slash))) != 0) {
      break;
    }
  }
  return at;
}

constexpr PlainSearch kVectorSearches[] = {{"NEON", &IsAlwaysSupported, &SkipPlainNeon}};

#endif

std::size_t SkipNothing(const unsigned char* /*text*/, std::size_t /*size*/) { return 0; }

std::vector<PlainSearch> MakePlainSearches() {
  std::vector<PlainSearch> searches;
#if defined(__x86_64__) || defined(__aarch64__)
  searches.assign(std::begin(kVectorSearches), std::end(kVectorSearches));
#endif
  searches.push_back({"one by one", &IsAlwaysSupported, &SkipNothing});
  return searches;
}

const PlainSearch& FastestSearch() {
  static const PlainSearch search =
      *std::find_if(GetPlainSearches().begin(), GetPlainSearches().end(),
                    [](const PlainSearch& candidate) { return candidate.is_supported(); });
  return search;
}

}  // namespace

const std::vector<PlainSearch>& GetPlainSearches() {
  // Never destroyed: lines still come and go while the process exits.
  static const auto* const searches = new std::vector<PlainSearch>(MakePlainSearches());
  return *searches;
}

std::size_t PlainPrefixBy(const PlainSearch& search, std::string_view text) {
  const auto* const bytes = reinterpret_cast<const unsigned char*>(text.data());
  std::size_t size = search.skip_plain(bytes, text.size());
  while (size < text.size() && IsPlain(bytes[size])) {
    ++size;
  }
  return size;
}

std::size_t PlainPrefix(std::string_view text) { return PlainPrefixBy(FastestSearch(), text); }

}  // namespace RuntimeManager::host
