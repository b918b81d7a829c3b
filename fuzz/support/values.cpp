#include "values.h"

#include <cstdint>
#include <string>
#include <utility>
#include <vector>

namespace tarv::fuzz {
namespace {

constexpr std::size_t kScalarKinds = 11;  // all kinds before list and map, and the float list

template <class T>
std::vector<T> MakeNumbers(Script& script) {
  std::vector<T> numbers(script.Below(9));
  for (T& number : numbers) {
    number = script.Number<T>();
  }
  return numbers;
}

cw::EncodableList MakeList(Script& script, int depth) {
  cw::EncodableList list(script.Below(5));
  for (cw::EncodableValue& item : list) {
    item = MakeValue(script, depth - 1);
  }
  return list;
}

cw::EncodableMap MakeMap(Script& script, int depth) {
  cw::EncodableMap map;
  for (std::size_t left = script.Below(5); left > 0; --left) {
    cw::EncodableValue key = script.Flag() ? script.Text() : MakeValue(script, depth - 1);
    map.emplace(std::move(key), MakeValue(script, depth - 1));
  }
  return map;
}

bool AreEqual(const cw::EncodableValue& a, const cw::EncodableValue& b) { return a == b; }

// A NaN, and what holds one, does not equal itself.
bool HasNan(const cw::EncodableValue& value) { return !AreEqual(value, value); }

bool HasUnorderedKeyIn(const cw::EncodableMap& map) {
  for (const auto& [key, item] : map) {
    if (HasNan(key) || HasUnorderedKey(key) || HasUnorderedKey(item)) {
      return true;
    }
  }
  return false;
}

}  // namespace

cw::EncodableValue MakeValue(Script& script, int depth) {
  switch (script.Below(depth > 0 ? kScalarKinds + 2 : kScalarKinds)) {
    case 0:
      return {};
    case 1:
      return script.Flag();
    case 2:
      return script.Number<std::int32_t>();
    case 3:
      return script.Number<std::int64_t>();
    case 4:
      return script.Number<double>();
    case 5:
      return script.Text();
    case 6:
      return script.Bytes();
    case 7:
      return MakeNumbers<std::int32_t>(script);
    case 8:
      return MakeNumbers<std::int64_t>(script);
    case 9:
      return MakeNumbers<double>(script);
    case 10:
      return MakeNumbers<float>(script);
    case 11:
      return MakeList(script, depth);
    default:
      return MakeMap(script, depth);
  }
}

bool HasUnorderedKey(const cw::EncodableValue& value) {
  if (const auto* const map = std::get_if<cw::EncodableMap>(&value)) {
    return HasUnorderedKeyIn(*map);
  }
  const auto* const list = std::get_if<cw::EncodableList>(&value);
  for (std::size_t i = 0; list != nullptr && i < list->size(); ++i) {
    if (HasUnorderedKey((*list)[i])) {
      return true;
    }
  }
  return false;
}

bool AreSame(const cw::EncodableValue& a, const cw::EncodableValue& b) {
  return a.Serialize() == b.Serialize();
}

}  // namespace tarv::fuzz
