// The two JSON forms of the tool: typed JSON of any value reads as the same value, and any JSON text
// becomes a value that stays as it is, or an error.
#include <algorithm>
#include <string>

#include "json.h"
#include "support/require.h"
#include "support/script.h"
#include "support/values.h"

namespace {

using tarv::fuzz::AreSame;
using tarv::fuzz::Require;
using tarv::fuzz::Script;

cw::EncodableValue ThereAndBack(const cw::EncodableValue& value) {
  const std::string text = tarvctl::ToText(tarvctl::ToJson(value, true), false);
  return tarvctl::FromJson(tarvctl::ParseJson(text, "INPUT"), true);
}

// Texts that are no UTF-8 and the bits of a NaN change once, and then no more.
void Write(const cw::EncodableValue& value) {
  const cw::EncodableValue once = ThereAndBack(value);
  if (!tarv::fuzz::HasUnorderedKey(once)) {
    Require(AreSame(ThereAndBack(once), once), "typed JSON keeps a value");
  }
}

void Read(const std::string& text, bool typed) {
  cw::EncodableValue value;
  try {
    value = tarvctl::FromJson(tarvctl::ParseJson(text, "INPUT"), typed);
  } catch (const tarvctl::JsonError&) {
    return;
  }
  if (tarv::fuzz::HasUnorderedKey(value)) {
    return;
  }
  Write(value);
  const std::string pretty = tarvctl::ToText(tarvctl::ToJson(value, true), true);
  Require(
      AreSame(tarvctl::FromJson(tarvctl::ParseJson(pretty, "INPUT"), true), ThereAndBack(value)),
      "the pretty form says the same");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  Script script(data, size);
  switch (script.Below(3)) {
    case 0:
      Read(script.Rest(), true);
      break;
    case 1:
      Read(script.Rest(), false);
      break;
    default:
      Write(tarv::fuzz::MakeValue(script));
  }
  return 0;
}
