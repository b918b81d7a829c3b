// Reads a map for a few of its entries.
#ifndef CW_INTERNAL_MAP_ENTRIES_H
#define CW_INTERNAL_MAP_ENTRIES_H

#include <cw/byte_streams.h>
#include <cw/encodable_value.h>
#include <cw/internal/base64_streams.h>

#include <cstddef>
#include <optional>
#include <string_view>

namespace cw::internal {

// An entry that is wanted of a map: the value under this text, once it is read. Not the empty text,
// which stands for every other key.
struct WantedEntry {
  std::string_view key;
  std::optional<EncodableValue> value;
};

// Reads the value that comes next as the standard serializer does, and keeps of a map only the
// first values of `count` wanted entries, without making an EncodableMap; reports, counts and
// throws the same. False when the value is no map.
bool ReadMapEntries(WantedEntry* wanted, std::size_t count, ByteBufferStreamReader* stream);
bool ReadMapEntries(WantedEntry* wanted, std::size_t count, Base64StreamReader* stream);

}  // namespace cw::internal

#endif  // CW_INTERNAL_MAP_ENTRIES_H
