#include <quarn/internal/known_length.h>
#include <quarn/strings.h>

#include <utility>

namespace quarn {
namespace {

thread_local std::string_view known_out;
thread_local std::string_view known_in;

std::string_view& KnownOf(TextWay way) { return way == TextWay::kOut ? known_out : known_in; }

}  // namespace

KnownLength::KnownLength(TextWay way, std::string_view text)
    : known_(KnownOf(way)), outer_(std::exchange(known_, text)) {}

KnownLength::~KnownLength() { known_ = outer_; }

std::string_view FindView(TextWay way, const char* text) {
  const std::string_view known = KnownOf(way);
  return text != nullptr && text == known.data() ? known : strings::ViewOf(text);
}

}  // namespace quarn
