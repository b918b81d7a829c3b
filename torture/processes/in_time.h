// Whether an end is complete in time.
#ifndef TORTURE_PROCESSES_IN_TIME_H
#define TORTURE_PROCESSES_IN_TIME_H

#include <chrono>
#include <functional>

namespace tarv::test {

// Waits up to so long for what is asked for; tells whether it has come.
using WaitUpTo = std::function<bool(std::chrono::milliseconds)>;

// What may be left of an end for two seconds, and no longer. On a machine that is slower than that
// (busy, or under valgrind) one whole life of an application and its task is played and timed, in a
// runtime folder of its own: an end, which is less work, may take as much longer as five of these
// lives do. `grace` comes on top: how long the library itself lets something live on purpose.
bool IsOverInTime(const WaitUpTo& wait, std::chrono::milliseconds grace = {});

}  // namespace tarv::test

#endif  // TORTURE_PROCESSES_IN_TIME_H
