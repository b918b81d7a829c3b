#include "request.h"

#include <array>
#include <cmath>
#include <cstdlib>
#include <string_view>

namespace tarvctl {
namespace {

struct Unit {
  std::string_view name;
  double nanoseconds;
};
constexpr std::array<Unit, 7> kUnits{
    {{"ns", 1}, {"us", 1e3}, {"ms", 1e6}, {"s", 1e9}, {"", 1e9}, {"m", 60e9}, {"h", 3600e9}}};
// Longer ones are a slip of the finger, and do not fit the clock.
constexpr double kLongest = 366 * 24 * 3600e9;

}  // namespace

Duration ParseDuration(const std::string& text, const std::string& what) {
  char* end = nullptr;
  const double number = std::strtod(text.c_str(), &end);
  for (const Unit& unit : kUnits) {
    const double value = number * unit.nanoseconds;
    if (end != text.c_str() && unit.name == end && value >= 0 && value <= kLongest) {
      return Duration(std::llround(value));
    }
  }
  throw UsageError(what + " '" + text + "' is no time: write 10s, 50ms, 200us, 2m or 1h");
}

}  // namespace tarvctl
