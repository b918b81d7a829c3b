#include "scenario.h"

#include <QCoreApplication>
#include <QEvent>
#include <QObject>
#include <map>
#include <vector>

#include "facts.h"
#include "failing_memory.h"
#include "kit/surroundings.h"

namespace tarv::torture {
namespace {

constexpr std::chrono::milliseconds kSettling(3000);

// With memory for all.
void PlayWhole(ScenarioMaker make, Loop& loop, const char* when) {
  const auto scenario = make(loop);
  scenario->Begin();
  scenario->Act();
  const std::string wrong = scenario->Recover();
  if (!wrong.empty() || !scenario->WhatIsWrong().empty() || scenario->CountErrors() > 0 ||
      scenario->CountRefusals() > 0) {
    GiveUp(std::string(when) + ": " + wrong + scenario->WhatIsWrong() + ", " +
           std::to_string(scenario->CountErrors()) + " errors, " +
           std::to_string(scenario->CountRefusals()) + " refusals");
  }
}

void PlayInWant(ScenarioMaker make, Loop& loop, const Run& run) {
  const auto scenario = make(loop);
  scenario->Begin();
  if (run.lasting && run.nth > 0) {
    scenario->SetLimit(kWant);
  }
  LetMemoryFail(run.nth, run.lasting);
  scenario->Act();
  MendMemory();
  KeepCounts();
  scenario->SetLimit(kPatience);
  const int refusals = scenario->CountRefusals();
  Wrong(scenario->Recover());
  Wrong(scenario->WhatIsWrong());
  SetFact("refusals", refusals);
  SetFact("errors", scenario->CountErrors());
  SetFact("goes on", scenario->CountErrors() == 0 ? 1 : 0);
}

// What an end still has to do may take a moment.
void Rest(Loop& loop) {
  constexpr int kLooks = 10;
  long before = -1;
  int looks = 0;
  loop.RunUntil(
      [&] {
        looks = CountBlocks() == before ? looks + 1 : 0;
        before = CountBlocks();
        return looks == kLooks;
      },
      kSettling);
}

bool EndTasks(Loop& loop) {
  return loop.RunUntil([] { return test::Children().empty(); }, kPatience);
}

// Qt keeps the room of its lists of events and timers.
void GrowListsOfQt(Loop& loop) {
  constexpr std::size_t kMany = 100;
  std::vector<QObject> objects(kMany);
  for (QObject& object : objects) {
    object.startTimer(std::chrono::hours(1));
    QCoreApplication::postEvent(&object, new QEvent(QEvent::User));
  }
  loop.RunUntil([] { return false; }, std::chrono::milliseconds(10));
}

// What is made once is there after that.
void MakeWhatIsKept(ScenarioMaker make, Loop& loop) {
  GrowListsOfQt(loop);
  PlayWhole(make, loop, "the first time");
  PlayWhole(make, loop, "the second time");
  EndTasks(loop);
  Rest(loop);
}

}  // namespace

ScenarioMaker FindScenario(const std::string& operation) {
  static const std::map<std::string, ScenarioMaker> kMakers = {
      {"task alone", &MakeTaskAlone},
      {"tables", &MakeTables},
      {"server's tables", &MakeTablesOfServer},
      {"register intent", &MakeRegisterIntent},
      {"invoke intent", &MakeInvokeIntent},
      {"service", &MakeServiceMade},
      {"calls", &MakeCalls},
      {"steps of a call", &MakeSteps},
      {"ends of calls", &MakeEndsOfCalls},
      {"late answers", &MakeLateAnswers},
      {"answer of a thread", &MakeAnswerOfAThread},
      {"call of a thread", &MakeCallOfAThread},
      {"pending calls", &MakePendingCalls},
      {"kept task", &MakeKeptTask},
  };
  const auto found = kMakers.find(operation);
  return found == kMakers.end() ? nullptr : found->second;
}

void PlayScenario(ScenarioMaker make, const Run& run) {
  Loop loop;
  MakeWhatIsKept(make, loop);
  const long descriptors = static_cast<long>(test::CountDescriptors());
  const long blocks = CountBlocks();
  const bool tells_origins = std::getenv("TORTURE_ORIGINS") != nullptr;
  if (tells_origins) {
    WatchBlocks();
  }
  PlayInWant(make, loop, run);
  if (!EndTasks(loop)) {
    Wrong("a task goes on");
  }
  PlayWhole(make, loop, "the last time");
  EndTasks(loop);
  Rest(loop);
  loop.RunUntil([&] { return CountBlocks() - blocks <= run.blocks; }, kSettling);
  SetFact("escaped", loop.CountEscapedExceptions());
  SetFact("blocks", CountBlocks() - blocks);
  SetFact("descriptors", static_cast<long>(test::CountDescriptors()) - descriptors);
  if (tells_origins) {
    std::fputs(LivingBlocks().c_str(), stderr);
  }
}

}  // namespace tarv::torture
