#include <tarv/testing/failure.h>

#include <cstdlib>
#include <iostream>
#include <mutex>
#include <utility>

namespace tarv::testing {
namespace {

struct Current {
  std::mutex mutex;
  FailureHandler handler = [](const std::string& text) {
    std::cerr << "tarv::testing: " << text << std::endl;
    std::abort();
  };
};

// Never destroyed: objects of static life may report, too.
Current& GetCurrent() {
  static auto* const current = new Current;
  return *current;
}

}  // namespace

FailureHandler SetFailureHandler(FailureHandler handler) {
  Current& current = GetCurrent();
  const std::lock_guard lock(current.mutex);
  return std::exchange(current.handler, std::move(handler));
}

void ReportFailure(const std::string& text) {
  Current& current = GetCurrent();
  FailureHandler handler;
  {
    const std::lock_guard lock(current.mutex);
    handler = current.handler;
  }
  handler(text);
}

}  // namespace tarv::testing
