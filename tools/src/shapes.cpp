#include "shapes.h"

namespace tarvctl {
namespace {

using cw::EncodableList;
using cw::EncodableValue;

std::string TextAt(const EncodableValue& value, std::string_view key) {
  const auto* const text = value.Find<std::string>(key);
  return text == nullptr ? std::string() : *text;
}

const EncodableValue& ShapeAt(const EncodableValue& value, std::string_view key) {
  static const EncodableValue kNone;
  const EncodableValue* const found = value.Find(key);
  return found == nullptr ? kNone : *found;
}

const EncodableList& ListAt(const EncodableValue& value, std::string_view key) {
  static const EncodableList kNone;
  const auto* const list = value.Find<EncodableList>(key);
  return list == nullptr ? kNone : *list;
}

std::string TextOfStruct(const EncodableValue& shape) {
  if (shape.Find("members") == nullptr) {
    return TextAt(shape, "struct");  // a structure inside itself
  }
  std::string text = "{";
  for (const EncodableValue& member : ListAt(shape, "members")) {
    text += (text.size() > 1 ? ", " : "") + TextAt(member, "name") + ": " +
            TextOfShape(ShapeAt(member, "shape"));
  }
  return text + '}';
}

std::string TextOfEnum(const EncodableValue& shape) {
  std::string text;
  for (const EncodableValue& name : ListAt(shape, "names")) {
    text += (text.empty() ? "" : "|") + (name.AsString() != nullptr ? *name.AsString() : "?");
  }
  return text;
}

}  // namespace

std::string TextOfShape(const EncodableValue& shape) {
  if (const std::string* const simple = shape.AsString()) {
    return *simple;
  }
  if (const EncodableValue* const element = shape.Find("list")) {
    return '[' + TextOfShape(*element) + ']';
  }
  if (const EncodableValue* const element = shape.Find("map")) {
    return "{text: " + TextOfShape(*element) + '}';
  }
  if (const EncodableValue* const held = shape.Find("optional")) {
    return TextOfShape(*held) + '?';
  }
  if (shape.Find("enum") != nullptr) {
    return TextOfEnum(shape);
  }
  return shape.Find("struct") != nullptr ? TextOfStruct(shape) : std::string();
}

std::vector<std::string> DescribeMethods(const EncodableValue& description, const Output& output) {
  std::vector<std::string> lines;
  for (const EncodableValue& method : ListAt(description, "methods")) {
    const std::string result = TextOfShape(ShapeAt(method, "result"));
    const std::string progress = TextOfShape(ShapeAt(method, "progress"));
    lines.push_back(output.Paint(Colour::kBold, TextAt(method, "name")) + '(' +
                    TextOfShape(ShapeAt(method, "params")) + ')' +
                    (result.empty() ? "" : " -> " + result) +
                    (progress.empty() ? "" : ", steps " + progress));
    if (const std::string help = TextAt(method, "help"); !help.empty()) {
      lines.push_back("    " + help);
    }
  }
  return lines;
}

std::vector<std::string> MethodNames(const EncodableValue& description) {
  std::vector<std::string> names;
  for (const EncodableValue& method : ListAt(description, "methods")) {
    names.push_back(TextAt(method, "name"));
  }
  return names;
}

}  // namespace tarvctl
