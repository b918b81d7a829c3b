// tarv::CallOptions: how long things may take.
#ifndef TARV_CALLS_CALL_OPTIONS_H
#define TARV_CALLS_CALL_OPTIONS_H

#include <chrono>
#include <string>
#include <utility>

namespace tarv {

using Duration = std::chrono::nanoseconds;

// No limit. Must be asked for.
inline constexpr Duration kForever = Duration::max();

// For one call. CallOptions().Timeout(5s), or in C++20 {.timeout = 5s}.
struct CallOptions {
  // From the call to its end, connecting included. A call without a positive time ends at once.
  Duration timeout = std::chrono::seconds(30);

  CallOptions Timeout(Duration value) const {
    CallOptions changed = *this;
    changed.timeout = value;
    return changed;
  }
};

// For a Caller.
struct CallerOptions {
  // From the first call until the task has answered the handshake.
  Duration connect_timeout = std::chrono::seconds(10);
  // The task's name in the texts of errors. Empty: what the client tells, which those of a
  // ManagerWrapper do (ITaskClient); another's calls are then of "the task".
  std::string task_name;

  CallerOptions ConnectTimeout(Duration value) const {
    CallerOptions changed = *this;
    changed.connect_timeout = value;
    return changed;
  }
  CallerOptions TaskName(std::string value) const {
    CallerOptions changed = *this;
    changed.task_name = std::move(value);
    return changed;
  }
};

}  // namespace tarv

#endif  // TARV_CALLS_CALL_OPTIONS_H
