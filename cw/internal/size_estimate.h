// Estimates how large a value will be when it is encoded.
#ifndef CW_INTERNAL_SIZE_ESTIMATE_H
#define CW_INTERNAL_SIZE_ESTIMATE_H

#include <cw/encodable_value.h>

#include <cstddef>

namespace cw {

// The bytes to reserve for the value's encoding, which spares what takes them from growing in
// steps. Looks at few values: items of long lists and maps count as what they take in memory.
std::size_t EstimateEncodedSize(const EncodableValue& value);

}  // namespace cw

#endif  // CW_INTERNAL_SIZE_ESTIMATE_H
