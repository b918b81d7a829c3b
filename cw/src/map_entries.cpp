#include <cw/internal/map_entries.h>

#include <algorithm>
#include <string_view>

#include "value_reader.h"

namespace cw::internal {

namespace {

bool IsText(std::uint8_t type) {
  return type == static_cast<std::uint8_t>(TypeByte::String) ||
         type == static_cast<std::uint8_t>(TypeByte::LargeInt);
}

// The text that comes next as a key, where it lies; the empty one where it is not all there.
std::string_view TakeText(std::size_t length, ByteBufferStreamReader* stream) {
  const auto* const text = reinterpret_cast<const char*>(stream->TakeBytes(length));
  return text == nullptr ? std::string_view() : std::string_view(text, length);
}

// The same; the empty one for a text that is longer than any key that is wanted.
std::string_view TakeText(std::size_t length, Base64StreamReader* stream) {
  if (length > Base64StreamReader::kLongestTaken) {
    ReadChars(length, stream);
    return {};
  }
  return {reinterpret_cast<const char*>(stream->TakeBytes(length)), length};
}

// The key that comes next, valid until the next read; the empty one for what is no text.
template <class Stream>
std::string_view ReadKey(DirectSource<Stream> source) {
  const ValueScope scope(&source.stream->GetBudget());
  const std::uint8_t type = source.stream->ReadByte();
  if (!IsText(type)) {
    source.ReadPayload(type);
    return {};
  }
  const std::size_t length = ReadSizeFrom(source.stream);
  ClaimBlock(length, 1, source.stream);
  return TakeText(length, source.stream);
}

// The entry with this key, if it is still without a value.
WantedEntry* FindWanted(std::string_view key, WantedEntry* wanted, std::size_t count) {
  WantedEntry* const end = wanted + count;
  WantedEntry* const found =
      std::find_if(wanted, end, [key](const WantedEntry& entry) { return entry.key == key; });
  return found == end || found->value ? nullptr : found;
}

// ReadMap, for the entries that are wanted. The others are read as well: they count, and what is
// wrong with them is reported.
template <class Stream>
void ReadEntries(DirectSource<Stream> source, WantedEntry* wanted, std::size_t count) {
  const std::size_t size = ReadSizeFrom(source.stream);
  AnnouncedItems entries(size, kMapEntryMinSize, source.stream);
  while (entries.Next()) {
    if (WantedEntry* const found = FindWanted(ReadKey(source), wanted, count)) {
      found->value.emplace(NextItem<DirectSource<Stream>>{source});
    } else {
      ReadItem(source);
    }
  }
}

template <class Stream>
bool ReadMapEntriesFrom(DirectSource<Stream> source, WantedEntry* wanted, std::size_t count) {
  const ValueScope scope(&source.stream->GetBudget());
  const std::uint8_t type = source.stream->ReadByte();
  if (type != static_cast<std::uint8_t>(TypeByte::Map)) {
    source.ReadPayload(type);
    return false;
  }
  ReadEntries(source, wanted, count);
  return true;
}

}  // namespace

bool ReadMapEntries(WantedEntry* wanted, std::size_t count, ByteBufferStreamReader* stream) {
  return ReadMapEntriesFrom(DirectSource<ByteBufferStreamReader>{stream}, wanted, count);
}

bool ReadMapEntries(WantedEntry* wanted, std::size_t count, Base64StreamReader* stream) {
  return ReadMapEntriesFrom(DirectSource<Base64StreamReader>{stream}, wanted, count);
}

}  // namespace cw::internal
