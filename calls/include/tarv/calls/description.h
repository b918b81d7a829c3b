// tarv::Description: what a task tells about itself, and the methods that every task has.
#ifndef TARV_CALLS_DESCRIPTION_H
#define TARV_CALLS_DESCRIPTION_H

#include <cw/encodable_value.h>
#include <tarv/calls/method.h>
#include <tarv/calls/metrics.h>
#include <tarv/calls/value.h>

#include <cstdint>
#include <string>
#include <vector>

namespace tarv {

// One method of a Service. The shapes are those of ShapeOf, null for void.
struct MethodDescription {
  std::string name;
  std::string help;
  cw::EncodableValue params;
  cw::EncodableValue result;
  cw::EncodableValue progress;
};
TARV_VALUE(MethodDescription, name, help, params, result, progress)

struct Limits {
  std::int32_t nesting = 0;  // levels of lists and maps that a parameter or a result may have
};
TARV_VALUE(Limits, nesting)

struct Versions {
  std::string tarv;        // of the library that the task was built with
  std::int32_t calls = 0;  // of the layer's own notifications and methods, "$/..."
};
TARV_VALUE(Versions, tarv, calls)

struct Description {
  std::vector<MethodDescription> methods;  // by name; plain OnRequest handlers are not among them
  Limits limits;
  Versions versions;
};
TARV_VALUE(Description, methods, limits, versions)

// Every task with a Service answers these: caller.Call(tarv::kDescribe).
inline constexpr Method<Description()> kDescribe{"$/describe", "the methods of this task"};
inline constexpr Method<Metrics()> kMetrics{"$/metrics", "how the requests to this task have gone"};

}  // namespace tarv

#endif  // TARV_CALLS_DESCRIPTION_H
