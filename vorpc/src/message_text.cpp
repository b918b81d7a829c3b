// How a message is read from its text.
#include <cw/internal/base64_streams.h>
#include <cw/internal/map_entries.h>
#include <cw/internal/whole_message.h>
#include <quarn/internal/base64.h>
#include <vorpc/internal/message_text.h>

#include <array>
#include <exception>
#include <new>
#include <optional>
#include <stdexcept>

#include "message_members.h"

namespace vorpc {
namespace {

// The members of a message that is read from its bytes, without the map that they come in.
class MemberReader {
 public:
  // False when what comes next in the stream is no map.
  template <class Stream>
  bool Read(Stream* stream) {
    for (cw::internal::WantedEntry& entry : entries_) {
      entry.value.reset();
    }
    return cw::internal::ReadMapEntries(entries_.data(), entries_.size(), stream);
  }

  details::Members GetMembers() { return {Get(0), Get(1), Get(2), Get(3), Get(4), Get(5)}; }

 private:
  cw::EncodableValue* Get(std::size_t entry) {
    auto& value = entries_[entry].value;
    return value ? &*value : nullptr;
  }

  std::array<cw::internal::WantedEntry, 6> entries_{{{"error", std::nullopt},
                                                     {"id", std::nullopt},
                                                     {"jsonrpc", std::nullopt},
                                                     {"method", std::nullopt},
                                                     {"params", std::nullopt},
                                                     {"result", std::nullopt}}};
};

// As Message::FromEncodable of the value that the bytes hold.
Message FromBytes(const std::uint8_t* data, std::size_t size) {
  MemberReader reader;
  try {
    if (!cw::internal::ReadWholeMessage(data, size, [&reader](cw::ByteBufferStreamReader* stream) {
          return reader.Read(stream);
        })) {
      return details::MakeUnreadable();
    }
  } catch (const std::length_error&) {
    // Beyond the codec's bounds.
    return details::MakeUnreadable();
  }
  return details::MakeMessage(reader.GetMembers());
}

// Texts up to here are decoded on the stack, which spares an allocation. Longer ones are decoded as
// they are read: their bytes as a whole would be a second large block of memory, and its pages cost
// more than what they hold.
constexpr std::size_t kLongestOnStack = 65536;

Message FromShortText(std::string_view text) {
  alignas(std::uint64_t) std::array<std::uint8_t, kLongestOnStack / 4 * 3> bytes;
  const auto size = quarn::base64::DecodedSize(text.data(), text.size());
  if (!size || !quarn::base64::Decode(text.data(), text.size(), bytes.data())) {
    return details::MakeUnreadable();
  }
  return FromBytes(bytes.data(), *size);
}

// Without the bytes as a whole. None, with nothing reported, for a text with any fault.
std::optional<Message> FromFlawlessText(std::string_view text) {
  if (!quarn::base64::DecodedSize(text.data(), text.size())) {
    return std::nullopt;
  }
  MemberReader reader;
  try {
    cw::Base64StreamReader stream(text);
    if (!reader.Read(&stream)) {
      return std::nullopt;
    }
    stream.CheckRest();
  } catch (const std::exception&) {
    return std::nullopt;
  }
  return details::MakeMessage(reader.GetMembers());
}

Message FromLongText(std::string_view text) {
  if (auto message = FromFlawlessText(text)) {
    return *std::move(message);
  }
  const auto bytes = quarn::base64::DecodeToBytes(text.data(), text.size());
  return bytes ? FromBytes(bytes->data(), bytes->size()) : details::MakeUnreadable();
}

Message FromText(std::string_view text) {
  return text.size() > kLongestOnStack ? FromLongText(text) : FromShortText(text);
}

}  // namespace

Message Message::FromBase64(const std::string& text) {
  try {
    return MessageFromText(text);
  } catch (const std::bad_alloc&) {
    return details::MakeUnreadable();
  }
}

Message MessageFromText(std::string_view text) { return text.empty() ? Message() : FromText(text); }

}  // namespace vorpc
