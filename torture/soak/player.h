// One application of the soak: plays for a while, lets all come to rest, measures; again and again.
#ifndef TORTURE_SOAK_PLAYER_H
#define TORTURE_SOAK_PLAYER_H

#include <cstdint>
#include <string>

namespace soak {

struct Play {
  std::string name;        // of the application, in the name of its intent
  std::string other_name;  // of the application whose intent it invokes
  std::uint64_t seed = 0;
  double seconds = 0;        // of everything
  double round_seconds = 0;  // from one rest to the next
  // Whether the manager is released at the end of a round, with all that runs.
  bool is_restless = false;
};

// Writes a line of figures at each rest on standard output: Row::kMark, and the members of a Row.
// Returns the exit status: 0 when everything has ended as it must.
int RunPlay(const Play& play);

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

#endif  // TORTURE_SOAK_PLAYER_H
