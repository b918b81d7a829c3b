// Conversions between number types that refuse what does not fit.
#ifndef QUARN_NUMBERS_H
#define QUARN_NUMBERS_H

#include <quarn/export.h>

#include <cstdint>

namespace quarn::numbers {

// Stores `value` in `out` when it is an integer that 64 signed bits hold, and returns true.
// Otherwise stores 0 and returns false: without a word for a value with a fractional part, after an
// error line for a NaN, an infinity or a value out of range. Any thread.
TARV_EXPORT bool SafeDoubleToInt64(double value, std::int64_t& out);

}  // namespace quarn::numbers

#endif  // QUARN_NUMBERS_H
