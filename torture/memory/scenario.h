// Operations of one layer in a process with an event loop.
#ifndef TORTURE_SCENARIO_H
#define TORTURE_SCENARIO_H

#include <chrono>
#include <functional>
#include <memory>
#include <string>

#include "account.h"
#include "loop.h"

namespace tarv::torture {

struct Run {
  std::string operation;
  long nth = 0;
  bool lasting = false;
  long blocks = 0;  // that a run with memory for all leaves
};

// What is made in it goes with it at the latest.
class Scenario : public Account {
 public:
  explicit Scenario(Loop& loop) : loop_(loop) {}
  virtual ~Scenario() = default;
  Scenario(const Scenario&) = delete;
  Scenario& operator=(const Scenario&) = delete;

  // What the operation needs.
  virtual void Begin() {}
  // The operation. Memory may fail.
  virtual void Act() = 0;
  // With memory back: what still lives works, and then all goes. Says what is wrong, or "".
  virtual std::string Recover() = 0;

  // How long news are waited for.
  void SetLimit(std::chrono::milliseconds limit) { limit_ = limit; }

 protected:
  // Runs the loop until nothing is owed; false when the limit is over first.
  bool Settle() {
    return RunUntil([this] { return IsSettled(); });
  }
  bool RunUntil(const std::function<bool()>& condition) {
    return loop_.RunUntil(condition, limit_);
  }

 private:
  Loop& loop_;
  std::chrono::milliseconds limit_ = kPatience;
};

using ScenarioMaker = std::unique_ptr<Scenario> (*)(Loop& loop);

std::unique_ptr<Scenario> MakeTaskAlone(Loop& loop);
std::unique_ptr<Scenario> MakeTables(Loop& loop);
std::unique_ptr<Scenario> MakeTablesOfServer(Loop& loop);
std::unique_ptr<Scenario> MakeRegisterIntent(Loop& loop);
std::unique_ptr<Scenario> MakeInvokeIntent(Loop& loop);
std::unique_ptr<Scenario> MakeServiceMade(Loop& loop);
std::unique_ptr<Scenario> MakeCalls(Loop& loop);
std::unique_ptr<Scenario> MakeSteps(Loop& loop);
std::unique_ptr<Scenario> MakeEndsOfCalls(Loop& loop);
std::unique_ptr<Scenario> MakeLateAnswers(Loop& loop);
std::unique_ptr<Scenario> MakeAnswerOfAThread(Loop& loop);
std::unique_ptr<Scenario> MakeCallOfAThread(Loop& loop);
std::unique_ptr<Scenario> MakePendingCalls(Loop& loop);
std::unique_ptr<Scenario> MakeKeptTask(Loop& loop);

// Null when there is no such operation.
ScenarioMaker FindScenario(const std::string& operation);
// Twice with memory for all, so that what is made once is there, then with as little as `run` says,
// and once more. Keeps the facts.
void PlayScenario(ScenarioMaker make, const Run& run);

}  // namespace tarv::torture

#endif  // TORTURE_SCENARIO_H
