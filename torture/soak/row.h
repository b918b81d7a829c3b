// The figures of one rest, as they go from an application of the soak to its driver.
#ifndef TORTURE_SOAK_ROW_H
#define TORTURE_SOAK_ROW_H

#include <cstdint>
#include <string>

namespace soak {

// What is told at a rest.
struct Row {
  static constexpr char kMark[] = "soak-row";

  std::uint64_t round = 0;
  std::uint64_t begun = 0;      // calls, requests and intents
  std::uint64_t values = 0;     // of those, ended with a value
  std::uint64_t errors = 0;     // ended with an error
  std::uint64_t forgotten = 0;  // let go of
  std::uint64_t starts = 0;     // of tasks
  std::uint64_t signals = 0;    // sent to tasks
  std::int64_t private_kib = 0;
  std::int64_t held = 0;  // bytes
  std::int64_t descriptors = 0;
  std::int64_t threads = 0;
  std::int64_t children = 0;
  std::int64_t sockets = 0;           // files of this process in the runtime folder
  std::int64_t task_private_kib = 0;  // of the task that lives through all rounds
  std::int64_t task_held = 0;
  std::int64_t task_descriptors = 0;
};

std::string ToLine(const Row& row);
// False for a line that is none.
bool FromLine(const std::string& line, Row& row);

}  // namespace soak

#endif  // TORTURE_SOAK_ROW_H
