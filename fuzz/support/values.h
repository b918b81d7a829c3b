// Values out of a script, and what of a value decides whether it can be compared.
#ifndef FUZZ_SUPPORT_VALUES_H
#define FUZZ_SUPPORT_VALUES_H

#include <cw/encodable_value.h>

#include "script.h"

namespace tarv::fuzz {

// A value of any kind but the custom one, at most `depth` lists and maps inside each other.
cw::EncodableValue MakeValue(Script& script, int depth = 6);

// Whether a NaN, which equals nothing, is a key of a map somewhere in the value: such a map has no
// order, and what a second reading makes of it is not said.
bool HasUnorderedKey(const cw::EncodableValue& value);

// The values are the same, bit by bit: a NaN is the same as itself.
bool AreSame(const cw::EncodableValue& a, const cw::EncodableValue& b);

}  // namespace tarv::fuzz

#endif  // FUZZ_SUPPORT_VALUES_H
