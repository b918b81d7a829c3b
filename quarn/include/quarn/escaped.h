// Text of others in a log line or on a terminal.
//
//   QUARN_LOG_WARN() << "No method '" << quarn::Escaped{request.method} << "'";
//
// A peer may put anything into its names and messages. Shown like this, they cannot begin a second
// line, nor move the cursor of whoever reads the log on a terminal.
#ifndef QUARN_ESCAPED_H
#define QUARN_ESCAPED_H

#include <quarn/export.h>

#include <iosfwd>
#include <string_view>

namespace quarn {

// The text stays the caller's and must outlive the insertion.
struct Escaped {
  std::string_view text;
};

// Writes the text as it is, but for control characters (those below U+0020, and U+007F to U+009F)
// and bytes that are not UTF-8: these come as "\n", "\t" or, byte by byte, in the form "\x1b". The
// stream's width and number format play no part. Allocates nothing. Any thread.
TARV_EXPORT std::ostream& operator<<(std::ostream& stream, const Escaped& escaped);

}  // namespace quarn

#endif  // QUARN_ESCAPED_H
