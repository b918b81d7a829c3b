// The part of coroutines that the sources of the layer do. Read coroutine.h instead.
#ifndef TARV_CALLS_RESUMING_H
#define TARV_CALLS_RESUMING_H

#include <exception>
#include <map>
#include <memory>

namespace tarv::details {

// Marks that this thread runs a coroutine: one must not be destroyed while it runs, only where it
// waits.
class Resuming {
 public:
  // Coroutines, by their addresses.
  using Works = std::map<const void*, std::shared_ptr<void>>;

  Resuming();
  ~Resuming();
  Resuming(const Resuming&) = delete;
  Resuming& operator=(const Resuming&) = delete;

  // Destroys the works once this thread runs no coroutine: now, or with the outermost mark. Takes no
  // memory.
  static void DestroyOutside(Works&& works) noexcept;

 private:
  const bool is_outermost_;
  Works left_;  // to be destroyed
};

// Writes the line about an exception that nobody took.
void LogLostException(const std::exception_ptr& exception);

}  // namespace tarv::details

#endif  // TARV_CALLS_RESUMING_H
