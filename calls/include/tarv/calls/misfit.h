// tarv::ValueError: a value that does not fit the type that it is wanted as, and where.
#ifndef TARV_CALLS_MISFIT_H
#define TARV_CALLS_MISFIT_H

#include <cw/encodable_value.h>

#include <cstddef>
#include <stdexcept>
#include <string>
#include <string_view>

namespace tarv {

// what() is the place and the reason: "params.texts[1]: expected a text, got int32 5".
class ValueError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

namespace details {

// Collects where a conversion stopped, and why. Whoever finds the problem reports it, and each
// level above puts its step in front of the path, so that a conversion that succeeds builds no
// text. Every operation but the last two returns false, for `return misfit.Expected(...)`.
class Misfit {
 public:
  bool Report(std::string problem);
  // "expected a text, got int32 5".
  bool Expected(std::string_view what, const cw::EncodableValue& got);
  bool InMember(std::string_view name);
  bool AtIndex(std::size_t index);
  bool AtKey(std::string_view key);

  // "params.texts[1]: expected a text, got int32 5" for the root "params".
  std::string GetText(std::string_view root) const;

  // How many lists, maps and structures are being written around the place.
  std::size_t depth = 0;

 private:
  std::string path_;
  std::string problem_;
};

}  // namespace details
}  // namespace tarv

#endif  // TARV_CALLS_MISFIT_H
