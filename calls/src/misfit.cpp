#include <tarv/calls/misfit.h>

#include <utility>

#include "value_text.h"

namespace tarv::details {

bool Misfit::Report(std::string problem) {
  problem_ = std::move(problem);
  return false;
}

bool Misfit::Expected(std::string_view what, const cw::EncodableValue& got) {
  return Report("expected " + std::string(what) + ", got " + TextOfValue(got));
}

bool Misfit::InMember(std::string_view name) {
  path_.insert(0, "." + std::string(name));
  return false;
}

bool Misfit::AtIndex(std::size_t index) {
  path_.insert(0, "[" + std::to_string(index) + "]");
  return false;
}

bool Misfit::AtKey(std::string_view key) {
  path_.insert(0, "[" + Quoted(key) + "]");
  return false;
}

std::string Misfit::GetText(std::string_view root) const {
  return std::string(root) + path_ + ": " + problem_;
}

}  // namespace tarv::details
