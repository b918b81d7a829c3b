// quarn::IDispatcher: hands work to the event loop of a host.
#ifndef QUARN_DISPATCHER_H
#define QUARN_DISPATCHER_H

#include <quarn/export.h>

#include <functional>
#include <memory>

namespace quarn {

// Implementations say on which thread a task runs; Invoke may be called from any thread.
class TARV_EXPORT IDispatcher {
 public:
  virtual ~IDispatcher() = default;

  // Schedules or runs `task`. `param` means what the dispatcher says it means; everybody else
  // passes it through unchanged.
  virtual void Invoke(const std::function<void()>& task, unsigned int param) = 0;

  // A new dispatcher that runs nothing and warns at each call: for objects that never marshal work
  // between threads.
  static std::shared_ptr<IDispatcher> CreateEmpty();
};

}  // namespace quarn

#endif  // QUARN_DISPATCHER_H
