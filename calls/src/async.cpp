// Coroutines need this of the library, which is C++17: no coroutine in here.
#include <quarn/escaped.h>
#include <quarn/logger.h>
#include <tarv/calls/resuming.h>

namespace tarv::details {

namespace {

thread_local int resuming = 0;

}  // namespace

Resuming::Resuming() { ++resuming; }

Resuming::~Resuming() { --resuming; }

bool Resuming::IsAnywhere() { return resuming > 0; }

void LogLostException(const std::exception_ptr& exception) {
  try {
    std::rethrow_exception(exception);
  } catch (const std::exception& error) {
    QUARN_LOG_ERROR() << "An exception left a coroutine that nobody awaits: "
                      << quarn::Escaped{error.what()};
  } catch (...) {
    QUARN_LOG_ERROR() << "An exception of unknown type left a coroutine that nobody awaits.";
  }
}

}  // namespace tarv::details
