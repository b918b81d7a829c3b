// How large a value will be when it is encoded.
#ifndef CW_INTERNAL_SIZE_ESTIMATE_H
#define CW_INTERNAL_SIZE_ESTIMATE_H

#include <cw/encodable_value.h>

#include <cstddef>

namespace cw {

// The bytes to reserve for the value's encoding, which spares what takes them from growing in
// steps. Judges long lists and maps by a few of their items, and looks at few values in all.
std::size_t EstimateEncodedSize(const EncodableValue& value);

}  // namespace cw

#endif  // CW_INTERNAL_SIZE_ESTIMATE_H
