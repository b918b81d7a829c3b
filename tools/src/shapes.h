// What a task tells of its methods, for people.
#ifndef TARVCTL_SHAPES_H
#define TARVCTL_SHAPES_H

#include <cw/encodable_value.h>

#include <string>
#include <vector>

#include "output.h"

namespace tarvctl {

// "{texts: [text], kind: text?}" of a shape as tarv::ShapeOf gives it; empty for null.
std::string TextOfShape(const cw::EncodableValue& shape);

// A line or two for each method of a Description.
std::vector<std::string> DescribeMethods(const cw::EncodableValue& description,
                                         const Output& output);
// Their names.
std::vector<std::string> MethodNames(const cw::EncodableValue& description);

}  // namespace tarvctl

#endif  // TARVCTL_SHAPES_H
