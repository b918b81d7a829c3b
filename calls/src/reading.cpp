// Reads the types of C++ from messages.
#include <tarv/calls/conversion.h>

#include <cmath>
#include <limits>
#include <type_traits>
#include <variant>

namespace tarv::details {

namespace {

std::string TextOfRange(const IntegerKind& kind) {
  return std::string(kind.name) + " (" + std::to_string(kind.least) + " to " +
         std::to_string(kind.most) + ")";
}

bool ReadAsFloat(double number, float& to) {
  const bool fits = !std::isfinite(number) ||
                    std::abs(number) <= static_cast<double>(std::numeric_limits<float>::max());
  to = fits ? static_cast<float>(number) : 0;
  return fits;
}

// Reads each element of the list as if it stood alone.
template <class T, class List, class Read>
bool ReadEach(const List& list, std::vector<T>& to, Misfit& misfit, Read read) {
  to.assign(list.size(), T());
  for (std::size_t i = 0; i < list.size(); ++i) {
    if (!read(cw::EncodableValue(list[i]), to[i])) {
      return misfit.AtIndex(i);
    }
  }
  return true;
}

// Of the kinds of values, lists are the vectors, and nothing else is.
template <class Held>
inline constexpr bool kIsList = false;
template <class Element>
inline constexpr bool kIsList<std::vector<Element>> = true;

template <class T, class Read>
bool ReadElements(const cw::EncodableValue& from, std::vector<T>& to, Misfit& misfit, Read read) {
  return std::visit(
      [&](const auto& held) {
        if constexpr (kIsList<std::decay_t<decltype(held)>>) {
          return ReadEach(held, to, misfit, read);
        } else {
          return misfit.Expected("a list of numbers", from);
        }
      },
      from);
}

}  // namespace

bool ReadBool(const cw::EncodableValue& from, bool& to, Misfit& misfit) {
  const auto flag = from.AsBool();
  to = flag.value_or(false);
  return flag || misfit.Expected("a bool", from);
}

bool ReadInteger(const cw::EncodableValue& from, const IntegerKind& kind, std::int64_t& to,
                 Misfit& misfit) {
  const auto number = from.AsInt64();
  if (!number) {
    return misfit.Expected(kind.name, from);
  }
  to = *number;
  return (to >= kind.least && to <= kind.most) || misfit.Expected(TextOfRange(kind), from);
}

bool ReadDouble(const cw::EncodableValue& from, double& to, Misfit& misfit) {
  const auto number = from.AsDouble();
  to = number.value_or(0);
  return number || misfit.Expected("a double", from);
}

bool ReadFloat(const cw::EncodableValue& from, float& to, Misfit& misfit) {
  const auto number = from.AsDouble();
  return (number && ReadAsFloat(*number, to)) || misfit.Expected("a float", from);
}

bool ReadText(const cw::EncodableValue& from, std::string& to, Misfit& misfit) {
  const std::string* const text = from.AsString();
  if (text == nullptr) {
    return misfit.Expected("a text", from);
  }
  to = *text;
  return true;
}

bool ReadBytes(const cw::EncodableValue& from, std::vector<std::uint8_t>& to, Misfit& misfit) {
  if (const auto* const bytes = std::get_if<std::vector<std::uint8_t>>(&from)) {
    to = *bytes;
    return true;
  }
  std::vector<std::int64_t> numbers;
  if (!ReadIntegers(from, {"uint8", 0, 255}, numbers, misfit)) {
    return false;
  }
  to.clear();
  to.reserve(numbers.size());
  for (const std::int64_t number : numbers) {
    to.push_back(static_cast<std::uint8_t>(number));
  }
  return true;
}

bool ReadIntegers(const cw::EncodableValue& from, const IntegerKind& kind,
                  std::vector<std::int64_t>& to, Misfit& misfit) {
  return ReadElements(from, to, misfit,
                      [&](const cw::EncodableValue& element, std::int64_t& number) {
                        return ReadInteger(element, kind, number, misfit);
                      });
}

bool ReadDoubles(const cw::EncodableValue& from, std::vector<double>& to, Misfit& misfit) {
  if (const auto* const doubles = std::get_if<std::vector<double>>(&from)) {
    to = *doubles;
    return true;
  }
  return ReadElements(from, to, misfit, [&](const cw::EncodableValue& element, double& number) {
    return ReadDouble(element, number, misfit);
  });
}

bool ReadFloats(const cw::EncodableValue& from, std::vector<float>& to, Misfit& misfit) {
  if (const auto* const floats = std::get_if<std::vector<float>>(&from)) {
    to = *floats;
    return true;
  }
  return ReadElements(from, to, misfit, [&](const cw::EncodableValue& element, float& number) {
    return ReadFloat(element, number, misfit);
  });
}

bool ReadEnum(const cw::EncodableValue& from, const char* type, const EnumName* names,
              std::size_t count, std::int64_t& to, Misfit& misfit) {
  std::string expected = std::string("a ") + type + " (";
  const std::string* const text = from.AsString();
  for (std::size_t i = 0; i < count; ++i) {
    if (text != nullptr && *text == names[i].name) {
      to = names[i].value;
      return true;
    }
    expected.append(i == 0 ? "" : ", ").append(names[i].name);
  }
  return misfit.Expected(expected + ")", from);
}

const cw::EncodableList* ReadList(const cw::EncodableValue& from, cw::EncodableList& room,
                                  Misfit& misfit) {
  if (const auto* const list = from.AsList()) {
    return list;
  }
  const auto take = [](const cw::EncodableValue& number, cw::EncodableValue& to) {
    to = number;
    return true;
  };
  if (!ReadElements(from, room, misfit, take)) {
    misfit.Expected("a list", from);
    return nullptr;
  }
  return &room;
}

const cw::EncodableMap* ReadMap(const cw::EncodableValue& from, bool text_keys, Misfit& misfit) {
  const cw::EncodableMap* const map = from.AsMap();
  if (map == nullptr) {
    misfit.Expected("a map", from);
    return nullptr;
  }
  for (auto entry = map->begin(); text_keys && entry != map->end(); ++entry) {
    if (entry->first.AsString() == nullptr) {
      misfit.Expected("a map with text keys", entry->first);
      return nullptr;
    }
  }
  return map;
}

}  // namespace tarv::details
