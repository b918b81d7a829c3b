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

}  // namespace soak

#endif  // TORTURE_SOAK_PLAYER_H
