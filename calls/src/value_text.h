// How errors speak of values.
#ifndef TARV_CALLS_SRC_VALUE_TEXT_H
#define TARV_CALLS_SRC_VALUE_TEXT_H

#include <cw/encodable_value.h>

#include <string>
#include <string_view>

namespace tarv::details {

// "int32 5", "text "abc"", "null", "list of 3"; one short line whatever the value holds.
std::string TextOfValue(const cw::EncodableValue& value);

// The text in quotes, escaped and clipped as the log shows it.
std::string Quoted(std::string_view text);

}  // namespace tarv::details

#endif  // TARV_CALLS_SRC_VALUE_TEXT_H
