// The part of coroutines that the sources of the layer do. Read coroutine.h instead.
#ifndef TARV_CALLS_RESUMING_H
#define TARV_CALLS_RESUMING_H

#include <exception>

namespace tarv::details {

// Marks that this thread runs a coroutine: one must not be destroyed while it runs, only where it
// waits.
class Resuming {
 public:
  Resuming();
  ~Resuming();
  Resuming(const Resuming&) = delete;
  Resuming& operator=(const Resuming&) = delete;

  // On this thread.
  static bool IsAnywhere();
};

// Writes the line about an exception that nobody took.
void LogLostException(const std::exception_ptr& exception);

}  // namespace tarv::details

#endif  // TARV_CALLS_RESUMING_H
