// Any text as a line of a record: the quick way of reading agrees with the one for any JSON, and a
// message's line that is written again reads the same.
#include "record_line.h"

#include <cstdint>
#include <cstdlib>
#include <string>
#include <string_view>

#include "support/require.h"

namespace {

using tarv::fuzz::Require;
using tarvctl::ParseRecordLine;
using tarvctl::RecordLine;

// JSON's numbers are doubles where the quick way reads integers.
bool AreNear(std::int64_t a, std::int64_t b) {
  constexpr std::int64_t kLargestExact = std::int64_t{1} << 53;
  return a == b || a > kLargestExact || a < -kLargestExact;
}

bool AreSame(const RecordLine& a, const RecordLine& b) {
  return AreNear(a.time, b.time) && AreNear(a.pid, b.pid) && a.task == b.task && a.kind == b.kind &&
         a.data == b.data && a.envelope == b.envelope && a.process == b.process &&
         a.starter == b.starter && a.reason == b.reason;
}

// Of what is no Base64, nothing is written again.
bool IsBase64(const std::string& text) {
  constexpr std::string_view kSigns =
      "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/=";
  return !text.empty() && text.find_first_not_of(kSigns) == std::string::npos;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string text(reinterpret_cast<const char*>(data), size);
  const auto line = ParseRecordLine(text);
  // A blank in front is nothing to JSON, and not what the quick way expects.
  const auto slowly = ParseRecordLine(' ' + text);
  Require(line || !slowly, "what any JSON gives, the line gives");
  if (line && slowly) {
    Require(AreSame(*line, *slowly), "both ways agree");
  }
  if (line && line->IsMessage() && IsBase64(line->data)) {
    const auto again = ParseRecordLine(tarvctl::WriteMessageLine(*line));
    Require(again && AreSame(*again, *ParseRecordLine(tarvctl::WriteMessageLine(*again))),
            "what was written reads the same");
  }
  return 0;
}
