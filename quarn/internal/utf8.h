// Tells which bytes of a text from outside may be shown as they are, and how the others are shown.
#ifndef QUARN_INTERNAL_UTF8_H
#define QUARN_INTERNAL_UTF8_H

#include <cstddef>
#include <string>
#include <string_view>

namespace quarn::details {

// Bytes of the character at the front of `text`, which is not empty. 0 for a control character and
// for a byte that begins no well-formed UTF-8.
std::size_t ShowableLength(std::string_view text);

// How a byte is shown that may not be shown as it is: "\n", "\t", or in the form "\x1b". So short a
// string allocates nothing.
std::string EscapeOf(char byte);

}  // namespace quarn::details

#endif  // QUARN_INTERNAL_UTF8_H
