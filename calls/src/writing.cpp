// Writes the types of C++ into messages, and says what cannot be written.
#include <cw/codec_limits.h>
#include <tarv/calls/conversion.h>

#include <algorithm>
#include <limits>

namespace tarv::details {

namespace {

// The levels that a message adds around a payload: the message, its error, the holder of a progress
// value or of an error's data.
constexpr std::size_t kEnvelopeLevels = 3;

bool CheckAny(const cw::EncodableValue& value, Misfit& misfit);

bool CheckList(const cw::EncodableList& list, Misfit& misfit) {
  for (std::size_t i = 0; i < list.size(); ++i) {
    if (!CheckAny(list[i], misfit)) {
      return misfit.AtIndex(i);
    }
  }
  return true;
}

bool CheckMap(const cw::EncodableMap& map, Misfit& misfit) {
  for (const auto& [key, mapped] : map) {
    if (!CheckAny(key, misfit) || !CheckAny(mapped, misfit)) {
      const std::string* const text = key.AsString();
      return misfit.AtKey(text != nullptr ? *text : "...");
    }
  }
  return true;
}

// Whether the codec writes the value: a custom value would stop the process, depth throws.
bool CheckAny(const cw::EncodableValue& value, Misfit& misfit) {
  if (std::holds_alternative<cw::CustomEncodableValue>(value)) {
    return misfit.Report("a custom value cannot travel in a message");
  }
  const cw::EncodableList* const list = value.AsList();
  const cw::EncodableMap* const map = value.AsMap();
  if (list == nullptr && map == nullptr) {
    return true;
  }
  const bool fits = OpenLevel(misfit) && (list == nullptr || CheckList(*list, misfit)) &&
                    (map == nullptr || CheckMap(*map, misfit));
  --misfit.depth;
  return fits;
}

}  // namespace

bool OpenLevel(Misfit& misfit) {
  ++misfit.depth;
  return misfit.depth + kEnvelopeLevels <= cw::kMaxNesting ||
         misfit.Report("nests deeper than a message may (" +
                       std::to_string(cw::kMaxNesting - kEnvelopeLevels) + " levels)");
}

bool WriteUnsigned(std::uint64_t value, cw::EncodableValue& to, Misfit& misfit) {
  if (value > static_cast<std::uint64_t>(std::numeric_limits<std::int64_t>::max())) {
    return misfit.Report(std::to_string(value) + " is above 9223372036854775807, the greatest " +
                         "integer of a message: send it as a text");
  }
  to = static_cast<std::int64_t>(value);
  return true;
}

bool WriteEnum(std::int64_t value, const char* type, const EnumName* names, std::size_t count,
               cw::EncodableValue& to, Misfit& misfit) {
  const auto* const found = std::find_if(
      names, names + count, [value](const EnumName& name) { return name.value == value; });
  if (found == names + count) {
    return misfit.Report(std::to_string(value) + " is no value that TARV_ENUM(" + type + ") names");
  }
  to = found->name;
  return true;
}

bool WriteAny(cw::EncodableValue&& value, cw::EncodableValue& to, Misfit& misfit) {
  if (!CheckAny(value, misfit)) {
    return false;
  }
  to = std::move(value);
  return true;
}

void Put(cw::EncodableMap& map, std::string_view key, cw::EncodableValue&& value) {
  map.emplace(key, std::move(value));
}

}  // namespace tarv::details
