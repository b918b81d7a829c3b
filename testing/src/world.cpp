#include <tarv/testing/world.h>

#include <algorithm>

namespace tarv::testing {

World::~World() = default;

Caller& World::GetCaller() {
  if (!caller_) {
    caller_ = MakeCaller();
  }
  return *caller_;
}

ObservedCall<cw::EncodableValue> World::Call(std::string_view method, cw::EncodableValue params,
                                             const CallOptions& options) {
  return Call(Method<cw::EncodableValue(cw::EncodableValue)>{method}, std::move(params), options);
}

bool World::HasOpenCalls() const {
  if (!caller_) {
    return false;
  }
  const Metrics metrics = caller_->GetMetrics();
  return std::any_of(metrics.methods.begin(), metrics.methods.end(),
                     [](const auto& method) { return method.second.in_flight > 0; });
}

}  // namespace tarv::testing
