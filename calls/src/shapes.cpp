// The descriptions of types that `$/describe` answers with.
#include <tarv/calls/conversion.h>

#include <algorithm>

namespace tarv::details {

cw::EncodableValue ShapeIn(const char* holder, cw::EncodableValue&& inner) {
  return cw::EncodableMap{{holder, std::move(inner)}};
}

cw::EncodableValue ShapeOfEnum(const char* type, const EnumName* names, std::size_t count) {
  cw::EncodableList texts;
  std::transform(names, names + count, std::back_inserter(texts),
                 [](const EnumName& name) { return cw::EncodableValue(name.name); });
  return cw::EncodableMap{{"enum", type}, {"names", std::move(texts)}};
}

cw::EncodableValue ShapeOfMember(const char* name, cw::EncodableValue&& shape) {
  return cw::EncodableMap{{"name", name}, {"shape", std::move(shape)}};
}

cw::EncodableValue ShapeOfStruct(const char* type, cw::EncodableList&& members) {
  return cw::EncodableMap{{"struct", type}, {"members", std::move(members)}};
}

cw::EncodableValue ShapeOfOpenStruct(const char* type) {
  return cw::EncodableMap{{"struct", type}};
}

bool IsOpen(const OpenStructs& open, std::string_view type) {
  return std::find(open.begin(), open.end(), type) != open.end();
}

}  // namespace tarv::details
