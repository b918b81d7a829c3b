// How the kit reports what a test must not pass over, where no value can tell it.
#ifndef TARV_TESTING_FAILURE_H
#define TARV_TESTING_FAILURE_H

#include <functional>
#include <string>

namespace tarv::testing {

// Called with one text for each thing that was found wrong where nobody asked: a process that a real
// task left behind, say.
using FailureHandler = std::function<void(const std::string& text)>;

// Replaces the handler, and returns the earlier one. The first one writes the text to standard error
// and ends the process; <tarv/testing/matchers.h> installs one that fails the running test. Any
// thread.
FailureHandler SetFailureHandler(FailureHandler handler);

// Calls the handler.
void ReportFailure(const std::string& text);

}  // namespace tarv::testing

#endif  // TARV_TESTING_FAILURE_H
