#include "answered_names.h"

namespace tarv::details {

std::vector<std::string> MethodNamesIn(const vorpc::Message::Response& response) {
  std::vector<std::string> names;
  const cw::EncodableValue* const result = response.GetResult();
  const auto* const methods =
      result != nullptr ? result->Find<cw::EncodableList>("methods") : nullptr;
  if (methods == nullptr) {
    return names;
  }
  for (const cw::EncodableValue& method : *methods) {
    if (const auto* const name = method.Find<std::string>("name")) {
      names.push_back(*name);
    }
  }
  return names;
}

}  // namespace tarv::details
