#include <quarn/logger.h>
#include <quarn/numbers.h>

#include <cstring>
#include <limits>

namespace quarn::numbers {
namespace {

constexpr int kMantissaBits = 52;
constexpr int kExponentBias = 1023;
constexpr std::uint64_t kExponentMask = 0x7FF;
constexpr double kTwoTo63 = 9223372036854775808.0;

// Reads the bit pattern, so that the answer depends on no rounding mode and no library call.
bool IsIntegral(double value) {
  std::uint64_t bits = 0;
  std::memcpy(&bits, &value, sizeof(bits));
  const int exponent = static_cast<int>((bits >> kMantissaBits) & kExponentMask) - kExponentBias;
  if (exponent < 0) {
    return bits << 1U == 0;  // a zero; a thread that flushes subnormals would compare them equal
  }
  if (exponent >= kMantissaBits) {
    return true;
  }
  const std::uint64_t fraction = (std::uint64_t{1} << (kMantissaBits - exponent)) - 1;
  return (bits & fraction) == 0;
}

}  // namespace

bool SafeDoubleToInt64(double value, std::int64_t& out) {
  out = 0;
  if (value != value) {
    QUARN_LOG_ERROR() << "Conversion failed: value is NaN";
    return false;
  }
  if (value > std::numeric_limits<double>::max() || value < std::numeric_limits<double>::lowest()) {
    QUARN_LOG_ERROR() << "Conversion failed: value is infinite";
    return false;
  }
  if (!IsIntegral(value)) {
    return false;
  }
  if (value < -kTwoTo63 || value > kTwoTo63) {
    QUARN_LOG_ERROR() << "Conversion failed: double value is out of int64_t range";
    return false;
  }
  if (value == kTwoTo63) {
    QUARN_LOG_ERROR() << "Conversion failed: value reaches or exceeds 2^63";
    return false;
  }
  out = static_cast<std::int64_t>(value);
  return true;
}

}  // namespace quarn::numbers
