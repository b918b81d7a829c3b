#include <quarn/escaped.h>
#include <quarn/internal/utf8.h>

#include <cstdint>
#include <ostream>

namespace quarn {
namespace {

// How many bytes from the front on may be shown as they are.
std::size_t ShowableRun(std::string_view text) {
  std::size_t run = 0;
  while (run < text.size()) {
    const std::size_t length = details::ShowableLength(text.substr(run));
    if (length == 0) {
      break;
    }
    run += length;
  }
  return run;
}

void Write(std::ostream& stream, std::string_view text) {
  stream.write(text.data(), static_cast<std::streamsize>(text.size()));
}

}  // namespace

std::ostream& operator<<(std::ostream& stream, const Escaped& escaped) {
  std::string_view rest = escaped.text;
  while (!rest.empty()) {
    const std::size_t run = ShowableRun(rest);
    Write(stream, rest.substr(0, run));
    rest.remove_prefix(run);
    if (!rest.empty()) {
      Write(stream, details::EscapeOf(rest.front()));
      rest.remove_prefix(1);
    }
  }
  return stream;
}

namespace details {
namespace {

// How long the UTF-8 character is that begins with `lead`; 0 when none does.
std::size_t Utf8LengthFrom(unsigned char lead) {
  if (lead < 0x80) {
    return 1;
  }
  if (lead < 0xC2 || lead > 0xF4) {
    return 0;
  }
  return lead < 0xE0 ? 2 : lead < 0xF0 ? 3 : 4;
}

// Overlong forms, surrogates and numbers past the last character; control characters, too.
bool IsForbiddenPair(unsigned char lead, unsigned char second) {
  return (lead == 0xC2 && second < 0xA0) || (lead == 0xE0 && second < 0xA0) ||
         (lead == 0xED && second > 0x9F) || (lead == 0xF0 && second < 0x90) ||
         (lead == 0xF4 && second > 0x8F);
}

bool IsControl(unsigned char byte) { return byte < ' ' || byte == 0x7F; }

}  // namespace

std::size_t ShowableLength(std::string_view text) {
  const auto byte_at = [text](std::size_t i) { return static_cast<unsigned char>(text[i]); };
  const std::size_t length = Utf8LengthFrom(byte_at(0));
  if (length > text.size() || IsControl(byte_at(0))) {
    return 0;
  }
  for (std::size_t i = 1; i < length; ++i) {
    if ((byte_at(i) & 0xC0) != 0x80) {
      return 0;
    }
  }
  return length > 1 && IsForbiddenPair(byte_at(0), byte_at(1)) ? 0 : length;
}

std::string EscapeOf(char byte) {
  if (byte == '\n') {
    return "\\n";
  }
  if (byte == '\t') {
    return "\\t";
  }
  constexpr std::string_view kDigits = "0123456789abcdef";
  const auto number = static_cast<std::uint8_t>(byte);
  return {'\\', 'x', kDigits[number >> 4], kDigits[number & 15]};
}

}  // namespace details
}  // namespace quarn
