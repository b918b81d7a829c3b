// The table "everything that can go wrong" of docs/calls.md as data that tests run: each scenario
// plays one way into a row, and says how the call must end.
//
// To run them in a world of your own, derive from World, give each scenario a fresh one, and compare:
//
//   for (const Scenario& scenario : AllScenarios()) {
//     MyWorld world;
//     if (!scenario.needs_processes) {
//       EXPECT_EQ(Compare(scenario, scenario.play(world)), "") << scenario.name;
//     }
//   }
//
// In a world with processes Start runs the program "misbehaving" with MISTAKE in its environment
// (endings_test.cpp does). In a world without, Start plays that task: for no mistake it makes a
// Service on the server's end, gives it its handlers with mistakes::Serve, runs it, and passes Deeds
// that do as if; for a mistake of mistakes.h it does what stands there.
#ifndef CALLS_TESTS_SCENARIOS_H
#define CALLS_TESTS_SCENARIOS_H

#include <tarv/calls/call_error.h>
#include <tarv/calls/loop.h>
#include <vorpc/client.h>

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <ostream>
#include <string>
#include <string_view>
#include <vector>

namespace tarv::test {

// An application, and where its tasks run.
class World {
 public:
  virtual ~World() = default;

  // What the Caller lives on.
  virtual std::shared_ptr<Loop> GetLoop() = 0;
  // The client of a task that makes `mistake` at its start, or none when that is empty. As
  // ManagerWrapper::CreateIpcClient: not run yet, and null for a name with a NUL in it.
  virtual std::shared_ptr<vorpc::IClient> Start(const std::string& task,
                                                const std::string& mistake) = 0;
  // Runs the loop, and lets its time pass, until the condition holds. False when it never does.
  virtual bool RunUntil(const std::function<bool()>& condition) = 0;
  // Bounds one message, and what may wait for a task that does not read, in bytes: for this process
  // and the tasks that start from now on.
  virtual void LimitMessages(std::size_t most) = 0;
  virtual void LimitQueue(std::size_t most) = 0;
  // Destroys the application's ManagerWrapper.
  virtual void EndManager() = 0;
};

struct Scenario {
  const char* name;      // of its test
  std::string_view row;  // the first cell of its row in docs/calls.md
  CallReason reason;
  std::int32_t code;
  std::string text;  // the whole what(); each * stands for a part that differs each time
  CallError (*play)(World& world);
  bool needs_processes = false;
};

const std::vector<Scenario>& AllScenarios();

// For the names of tests, which shall stay from run to run.
inline void PrintTo(const Scenario& scenario, std::ostream* stream) { *stream << scenario.name; }

// Empty when the error is the one that the scenario must end with; otherwise what differs.
std::string Compare(const Scenario& scenario, const CallError& error);

}  // namespace tarv::test

#endif  // CALLS_TESTS_SCENARIOS_H
