// The length of a text that crosses the C interface, which hands over its first character alone.
#ifndef QUARN_INTERNAL_KNOWN_LENGTH_H
#define QUARN_INTERNAL_KNOWN_LENGTH_H

#include <string_view>

namespace quarn {

enum class TextWay { kOut, kIn };

// While it lives, FindView() knows how long this text is, on this thread, and need not search it for
// its end: of a large payload that spares the CPU a walk through the whole text. They nest. The two
// ways know nothing of each other: whoever is handed a text may free it and send another one that
// begins at the same address.
class KnownLength {
 public:
  // The text outlives the object, and has no NUL but the one at its end.
  KnownLength(TextWay way, std::string_view text);
  ~KnownLength();
  KnownLength(const KnownLength&) = delete;
  KnownLength& operator=(const KnownLength&) = delete;

 private:
  std::string_view& known_;  // of this way and thread
  const std::string_view outer_;
};

// The text that was handed over, up to its NUL, as strings::ViewOf gives it. Throws std::logic_error
// for null.
std::string_view FindView(TextWay way, const char* text);

}  // namespace quarn

#endif  // QUARN_INTERNAL_KNOWN_LENGTH_H
