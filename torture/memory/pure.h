// Operations that need neither an event loop nor a task.
#ifndef TORTURE_PURE_H
#define TORTURE_PURE_H

#include <string>

namespace tarv::torture {

// What is wrong with an operation in which memory may fail, or "". A std::bad_alloc that the
// operation is documented to end in is counted in `refusals`.
using PureOperation = std::string (*)(int* refusals);

// Null when there is no such operation.
PureOperation FindPureOperation(const std::string& name);

}  // namespace tarv::torture

#endif  // TORTURE_PURE_H
