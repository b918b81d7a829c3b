#include "value_text.h"

#include <cstdint>
#include <sstream>
#include <vector>

namespace tarv::details {

namespace {

// An error shows so much of a text: the whole may be megabytes.
constexpr std::size_t kShownText = 40;

template <class T>
bool DescribeList(const cw::EncodableValue& value, const char* kind, std::string& to) {
  if (const auto* const list = std::get_if<T>(&value)) {
    to = std::string(kind) + " of " + std::to_string(list->size());
    return true;
  }
  return false;
}

bool DescribeLists(const cw::EncodableValue& value, std::string& to) {
  return DescribeList<cw::EncodableList>(value, "list", to) ||
         DescribeList<cw::EncodableMap>(value, "map", to) ||
         DescribeList<std::vector<std::uint8_t>>(value, "bytes", to) ||
         DescribeList<std::vector<std::int32_t>>(value, "int32 list", to) ||
         DescribeList<std::vector<std::int64_t>>(value, "int64 list", to) ||
         DescribeList<std::vector<double>>(value, "double list", to) ||
         DescribeList<std::vector<float>>(value, "float list", to);
}

}  // namespace

std::string Quoted(std::string_view text) {
  std::ostringstream stream;
  stream << cw::EncodableValue(text.substr(0, kShownText));
  return stream.str() + (text.size() > kShownText ? "..." : "");
}

std::string TextOfValue(const cw::EncodableValue& value) {
  std::string text;
  if (value.IsNull()) {
    text = "null";
  } else if (const auto* const flag = std::get_if<bool>(&value)) {
    text = *flag ? "bool true" : "bool false";
  } else if (const auto* const narrow = std::get_if<std::int32_t>(&value)) {
    text = "int32 " + std::to_string(*narrow);
  } else if (const auto* const wide = std::get_if<std::int64_t>(&value)) {
    text = "int64 " + std::to_string(*wide);
  } else if (const auto* const string = value.AsString()) {
    text = "text " + Quoted(*string);
  } else if (std::holds_alternative<double>(value)) {
    std::ostringstream stream;
    stream << value;
    text = "double " + stream.str();
  } else if (!DescribeLists(value, text)) {
    text = "a custom value";
  }
  return text;
}

}  // namespace tarv::details
