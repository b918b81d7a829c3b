// Any value as a structure: it is read, or the error names a place that is there; what was read is
// written, and then stays as it is.
#include <tarv/calls/value.h>

#include <charconv>
#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>
#include <utility>
#include <vector>

#include "support/require.h"
#include "support/script.h"
#include "support/values.h"
#include "value_text.h"

namespace {

enum class Color { kRed, kGreen };
TARV_ENUM(Color, kRed, kGreen)

struct Node {
  std::string name;
  std::vector<Node> children;
  std::map<std::string, Color> colors;
};
TARV_VALUE(Node, name, children, colors)

struct Everything {
  bool flag = false;
  std::int8_t tiny = 0;
  std::uint16_t small = 0;
  std::uint32_t medium = 0;
  std::uint64_t large = 0;
  float single = 0;
  double precise = 0;
  std::string text;
  std::vector<std::uint8_t> bytes;
  std::vector<std::int16_t> shorts;
  std::vector<std::uint32_t> words;
  std::vector<std::int64_t> longs;
  std::vector<float> floats;
  std::vector<double> doubles;
  std::vector<bool> flags;
  std::unordered_map<std::string, std::int32_t> counts;
  std::optional<std::string> note;
  std::vector<std::optional<std::int32_t>> holes;
  Color color = Color::kRed;
  Node node;
  cw::EncodableValue any;
};
TARV_VALUE(Everything, flag, tiny, small, medium, large, single, precise, text, bytes, shorts,
           words, longs, floats, doubles, flags, counts, note, holes, color, node, any)

using cw::EncodableList;
using cw::EncodableMap;
using cw::EncodableValue;
using tarv::fuzz::MakeValue;
using tarv::fuzz::Require;
using tarv::fuzz::Script;

// ---- Values that nearly fit ----

EncodableValue MakeNode(Script& script, int depth) {
  EncodableMap node{{"name", script.Text()}};
  EncodableList children;
  for (std::size_t left = depth > 0 ? script.Below(3) : 0; left > 0; --left) {
    children.push_back(MakeNode(script, depth - 1));
  }
  EncodableMap colors{{script.Text(), "kGreen"}};
  if (script.Below(4) == 0) {
    colors.emplace(script.Text(), MakeValue(script, 1));
  }
  node.emplace("children", std::move(children));
  node.emplace("colors", std::move(colors));
  return node;
}

// A whole structure, of which the script replaces or takes away some members.
EncodableValue MakeEverything(Script& script) {
  EncodableMap map = *tarv::ToEncodable(Everything()).AsMap();
  for (std::size_t left = script.Below(8); left > 0 && !map.empty(); --left) {
    const auto member =
        std::next(map.begin(), static_cast<std::ptrdiff_t>(script.Below(256) % map.size()));
    switch (script.Below(4)) {
      case 0:
        map.erase(member);
        break;
      case 1:
        map.insert_or_assign("node", MakeNode(script, 3));
        break;
      default:
        member->second = MakeValue(script, 3);
    }
  }
  return map;
}

// ---- The place that an error names ----

bool IsThere(const EncodableValue& at, std::string_view path);

bool StartsWith(std::string_view text, std::string_view head) {
  return text.substr(0, head.size()) == head;
}

bool IsMemberThere(const EncodableValue& at, std::string_view path) {
  const EncodableMap* const map = at.AsMap();
  if (map == nullptr) {
    return false;
  }
  const std::size_t end = path.find_first_of(".[:");
  const EncodableValue* const found = cw::Find(*map, path.substr(0, end));
  const std::string_view rest = path.substr(end);
  return found != nullptr ? IsThere(*found, rest) : rest == ": missing";
}

bool IsElementThere(const EncodableValue& at, std::string_view path) {
  std::size_t index = 0;
  const char* const end = std::from_chars(path.data(), path.data() + path.size(), index).ptr;
  const std::string_view rest = path.substr(static_cast<std::size_t>(end - path.data()) + 1);
  if (const EncodableList* const list = at.AsList()) {
    return index < list->size() && IsThere((*list)[index], rest);
  }
  // Numbers have no parts.
  const auto has = [&](auto* numbers) { return numbers != nullptr && index < numbers->size(); };
  return StartsWith(rest, ": ") &&
         (has(std::get_if<std::vector<std::int32_t>>(&at)) ||
          has(std::get_if<std::vector<std::int64_t>>(&at)) ||
          has(std::get_if<std::vector<std::uint8_t>>(&at)) ||
          has(std::get_if<std::vector<double>>(&at)) || has(std::get_if<std::vector<float>>(&at)));
}

// Long keys are shown in part, so that several may be meant.
bool IsEntryThere(const EncodableValue& at, std::string_view path) {
  const EncodableMap* const map = at.AsMap();
  for (auto entry = map->begin(); map != nullptr && entry != map->end(); ++entry) {
    const std::string* const key = entry->first.AsString();
    const std::string shown = key == nullptr ? "" : tarv::details::Quoted(*key) + ']';
    if (key != nullptr && StartsWith(path, shown) &&
        IsThere(entry->second, path.substr(shown.size()))) {
      return true;
    }
  }
  return false;
}

bool IsThere(const EncodableValue& at, std::string_view path) {
  if (StartsWith(path, ": ")) {
    return path != ": missing";
  }
  if (StartsWith(path, ".")) {
    return IsMemberThere(at, path.substr(1));
  }
  if (StartsWith(path, "[\"")) {
    return IsEntryThere(at, path.substr(1));
  }
  return StartsWith(path, "[") && IsElementThere(at, path.substr(1));
}

void CheckError(const EncodableValue& value, std::string_view error) {
  constexpr std::string_view kRoot = "params";
  Require(StartsWith(error, kRoot), "an error begins with the root");
  Require(IsThere(value, error.substr(kRoot.size())), "an error names a place that is there");
  Require(error.find("expected ") != std::string_view::npos ||
              error.find(": missing") != std::string_view::npos,
          "an error says what is wrong there");
}

template <class T>
void Read(const EncodableValue& value) {
  std::optional<T> read;
  try {
    read = tarv::FromEncodable<T>(value, "params");
  } catch (const tarv::ValueError& error) {
    CheckError(value, error.what());
    return;
  }
  const EncodableValue written = tarv::ToEncodable(*std::move(read));
  const EncodableValue again = tarv::ToEncodable(tarv::FromEncodable<T>(written));
  Require(tarv::fuzz::AreSame(written, again), "what was written stays as it is");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  Script script(data, size);
  const bool is_everything = script.Below(4) != 0;
  const EncodableValue value = is_everything ? MakeEverything(script) : MakeValue(script);
  if (!tarv::fuzz::HasUnorderedKey(value)) {
    Read<Everything>(value);
    Read<Node>(value);
    Read<std::vector<std::optional<Color>>>(value);
  }
  return 0;
}
