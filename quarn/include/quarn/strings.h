// Texts of C as views, and strict parsing of numbers in text.
#ifndef QUARN_STRINGS_H
#define QUARN_STRINGS_H

#include <quarn/escaped.h>
#include <quarn/logger.h>

#include <cstdint>
#include <limits>
#include <optional>
#include <stdexcept>
#include <string_view>
#include <type_traits>

namespace quarn::strings {

// A view of the text up to its NUL; the text stays the caller's. Throws std::logic_error for null,
// as a std::string made of it does.
inline std::string_view ViewOf(const char* text) {
  if (text == nullptr) {
    throw std::logic_error("basic_string: construction from null is not valid");
  }
  return text;
}

namespace details {

// The value of a text made of decimal digits alone; none for anything else or beyond 64 bits.
inline std::optional<std::uint64_t> ParseDigits(std::string_view digits) {
  if (digits.empty()) {
    return std::nullopt;
  }
  std::uint64_t value = 0;
  for (const char c : digits) {
    if (c < '0' || c > '9' || __builtin_mul_overflow(value, std::uint64_t{10}, &value) ||
        __builtin_add_overflow(value, static_cast<std::uint64_t>(c - '0'), &value)) {
      return std::nullopt;
    }
  }
  return value;
}

// The digits' value with its sign as an `Int`, when it fits.
template <class Int>
std::optional<Int> ParseSigned(std::string_view text) {
  const bool negative = text.substr(0, 1) == "-";
  const auto magnitude = ParseDigits(negative ? text.substr(1) : text);
  if (!magnitude) {
    return std::nullopt;
  }
  constexpr auto kMax = static_cast<std::uint64_t>(std::numeric_limits<Int>::max());
  if (*magnitude > kMax + (negative ? 1 : 0)) {
    return std::nullopt;
  }
  // Negating as unsigned reaches the lowest value without overflow.
  return static_cast<Int>(negative ? std::uint64_t{0} - *magnitude : *magnitude);
}

}  // namespace details

// Parses a whole text as a decimal integer: an optional '-' and digits, nothing else (no '+',
// blanks or prefixes). Stores the value in `out` and returns true, or, after a warning, stores 0
// and returns false. `Int` is a signed integer type. Any thread.
template <class Int>
bool ParseInt(std::string_view text, Int& out) {
  static_assert(std::is_signed_v<Int> && std::is_integral_v<Int>);
  out = 0;
  if (text.empty()) {
    QUARN_LOG_WARN_AT(QUARN_LOCATION_IN("quarn/include/quarn/strings.h"))
        << "Could not convert empty string to uint.";
    return false;
  }
  const auto value = details::ParseSigned<Int>(text);
  if (!value) {
    QUARN_LOG_WARN_AT(QUARN_LOCATION_IN("quarn/include/quarn/strings.h"))
        << "Could not convert string \"" << Escaped{text} << "\" to integer value.";
    return false;
  }
  out = *value;
  return true;
}

}  // namespace quarn::strings

#endif  // QUARN_STRINGS_H
