// One run: an operation in which one allocation fails, or all from that one on, and what comes of it.
//
//   torture_memory OPERATION NTH once|lasting
//
// The last line of its output is a JSON object: how many allocations the operation asks for, how
// many failed, and what is wrong. NTH is 0 to count only.

#include <cw/encodable_value.h>
#include <sys/types.h>
#include <unistd.h>

#include <QCoreApplication>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <iostream>
#include <string>
#include <utility>
#include <vector>

#include "facts.h"
#include "failing_memory.h"
#include "kit/surroundings.h"
#include "pure.h"
#include "scenario.h"
#include "talk.h"

namespace tarv::torture {
namespace {

using std::chrono::milliseconds;

const std::string kEcho = "echo";
constexpr milliseconds kSettling(3000);
const std::string kTask = "torture_memory_task";

class Torture {
 public:
  explicit Torture(Run run) : run_(std::move(run)) {}

  void Play();

 private:
  using Step = void (Torture::*)();

  void Prepare();
  void Begin();
  void Act();
  void Recover();
  void AskAgain();
  void Converse(const char* what);
  bool EndTasks();

  void Start();
  void Call();
  void Notify();
  void Release();
  void EndManager();
  void OpenUri();
  void AskTask();

  bool Is(const char* name) const { return run_.operation == name; }
  bool NeedsTask() const { return !Is("start"); }

  const Run run_;
  const std::vector<cw::EncodableValue> numbers_{cw::EncodableMap{{"number", 1}},
                                                 cw::EncodableMap{{"number", 2}}, "three"};
  int task_allocations_ = 0;
  Loop loop_;
  Talk talk_{&loop_};
};

// Start, a request, a notification each way, the end: all of it must work.
void Torture::Converse(const char* what) {
  Talk talk(&loop_);
  talk.MakeManager();
  talk.StartTask(kTask);
  if (!talk.Settle(kPatience) || !talk.IsConnected()) {
    GiveUp(std::string(what) + " does not start");
  }
  talk.Request("echo", 7);
  talk.Say(1);
  if (!talk.Settle(kPatience) || !talk.HasResult() ||
      !loop_.RunUntil([&talk] { return talk.CountSaid() == 1; }, kPatience)) {
    GiveUp(std::string(what) + " is not served");
  }
  talk.OpenUri();
  talk.Settle(kPatience);
  talk.EndClient();
  EndTasks();
  talk.EndManager();
}

bool Torture::EndTasks() {
  return loop_.RunUntil([] { return test::Children().empty(); }, kPatience);
}

void Torture::Prepare() {
  if (!Is("first start")) {
    Converse("the first conversation");
    Converse("the second conversation");
  }
}

void Torture::Begin() {
  if (Is("first start")) {
    return;
  }
  talk_.MakeManager();
  if (NeedsTask()) {
    talk_.StartTask(kTask);
    talk_.Settle(kPatience);
    talk_.Request("echo", 1);
    talk_.Settle(kPatience);
  }
}

void Torture::Start() {
  talk_.MakeManager();
  talk_.StartTask(kTask);
  talk_.Settle(run_.lasting && run_.nth > 0 ? kWant : kPatience);
}

void Torture::Call() {
  for (const cw::EncodableValue& number : numbers_) {
    talk_.Request(kEcho, number);
  }
  talk_.Settle(run_.lasting && run_.nth > 0 ? kWant : kPatience);
}

void Torture::Notify() {
  talk_.Say(1);
  loop_.RunUntil([this] { return talk_.CountSaid() > 0 || talk_.HasEnded(); }, kWant);
}

void Torture::Release() {
  talk_.Say(1);
  talk_.EndClient();
  loop_.RunUntil([] { return test::Children().empty(); }, kWant);
}

void Torture::EndManager() {
  talk_.EndManager();
  loop_.RunUntil([] { return test::Children().empty(); }, kWant);
}

void Torture::OpenUri() {
  talk_.OpenUri();
  talk_.Settle(run_.lasting && run_.nth > 0 ? kWant : kPatience);
}

// The task's memory fails while it answers; this process has as much as it likes. The task may
// answer, let its channel end, or end itself: each request ends.
void Torture::AskTask() {
  MendMemory();
  talk_.Request("process");
  talk_.Settle(kPatience);
  const pid_t task = static_cast<pid_t>(talk_.GetResult().AsInt64().value_or(0));
  talk_.Request("fail", run_.lasting ? -run_.nth : run_.nth);
  talk_.Settle(kPatience);
  for (const cw::EncodableValue& number : numbers_) {
    talk_.Request(kEcho, number);
  }
  talk_.Say(1);
  talk_.Settle(kWant);
  if (task > 0) {
    ::kill(task, SIGUSR1);
  }
  talk_.Settle(kPatience);
  if (run_.nth == 0) {
    talk_.Request("count");
    talk_.Settle(kPatience);
    task_allocations_ = static_cast<int>(talk_.GetResult().AsInt64().value_or(0));
  }
}

void Torture::Act() {
  static const std::vector<std::pair<const char*, Step>> kSteps = {
      {"first start", &Torture::Start}, {"start", &Torture::Start},
      {"call", &Torture::Call},         {"notify", &Torture::Notify},
      {"release", &Torture::Release},   {"end manager", &Torture::EndManager},
      {"open uri", &Torture::OpenUri},  {"task", &Torture::AskTask}};
  for (const auto& [name, step] : kSteps) {
    if (Is(name)) {
      LetMemoryFail(run_.nth, run_.lasting);
      (this->*step)();
      MendMemory();
      return;
    }
  }
  GiveUp("no such operation");
}

// With memory back, what is owed comes, what still lives works, and what does not can be let go.
void Torture::Recover() {
  SetFact("refusals", talk_.CountRefusals());
  SetFact("escaped", loop_.CountEscapedExceptions());
  if (!talk_.Settle(kPatience)) {
    Wrong("unanswered");
  }
  if (talk_.GetClient() != nullptr) {
    AskAgain();
  }
  talk_.EndClient();
  talk_.EndManager();
  SetFact("errors", talk_.CountErrors());
  Wrong(talk_.WhatIsWrong());
  if (!EndTasks()) {
    Wrong("a task goes on");
  }
}

// A client that has not ended answers.
void Torture::AskAgain() {
  if (!talk_.IsConnected() && !talk_.HasEnded() && !talk_.GetClient()->HasConnectionFailed()) {
    Wrong("neither connected nor ended");
  }
  talk_.Request("echo", 2);
  if (!talk_.Settle(kPatience)) {
    Wrong("deaf");
  }
  if (!talk_.HasEnded() && !talk_.HasResult()) {
    Wrong("connected, but errs");
  }
  SetFact("goes on", talk_.HasResult());
}

void Torture::Play() {
  Prepare();
  const long descriptors = static_cast<long>(test::CountDescriptors());
  const long blocks = CountBlocks();
  if (std::getenv("TORTURE_ORIGINS") != nullptr) {
    WatchBlocks();
  }
  Begin();
  Act();
  Recover();
  if (!Is("first start")) {
    Converse("the last conversation");
  }
  if (task_allocations_ > 0) {
    SetFact("of the task", task_allocations_);
  }
  // What a task's end still has to do may take a moment.
  loop_.RunUntil([&] { return CountBlocks() - blocks <= run_.blocks; }, kSettling);
  SetFact("blocks", CountBlocks() - blocks);
  SetFact("descriptors",
          static_cast<int>(static_cast<long>(test::CountDescriptors()) - descriptors));
  if (std::getenv("TORTURE_ORIGINS") != nullptr) {
    std::fputs(LivingBlocks().c_str(), stderr);
  }
}

// Twice with memory for all, so that what is made once is there, then with as little as `run` says,
// and once more.
void PlayPure(PureOperation play, const Run& run) {
  int refusals = 0;
  for (int i = 0; i < 2; ++i) {
    LetMemoryFail(0, false);
    Wrong(play(&refusals));
  }
  MendMemory();
  const long blocks = CountBlocks();
  LetMemoryFail(run.nth, run.lasting);
  const std::string wrong = play(&refusals);
  MendMemory();
  const long left = CountBlocks() - blocks;
  Wrong(wrong);
  KeepCounts();
  SetFact("blocks", left);
  SetFact("refusals", refusals);
  SetFact("descriptors", 0);
  SetFact("escaped", 0);
  SetFact("errors", refusals == 0 && CountFailures() > 0 ? 1 : 0);
  LetMemoryFail(0, false);
  Wrong(play(&refusals));
  MendMemory();
}

}  // namespace
}  // namespace tarv::torture

int main(int argc, char** argv) {
  using namespace tarv::torture;
  if (argc != 5) {
    std::fprintf(stderr, "usage: %s OPERATION NTH once|lasting BLOCKS\n", argv[0]);
    return 2;
  }
  PrepareMemory();
  QCoreApplication application(argc, argv);
  const Run run{argv[1], std::atol(argv[2]), std::strcmp(argv[3], "lasting") == 0,
                std::atol(argv[4])};
  if (const PureOperation pure = FindPureOperation(run.operation)) {
    PlayPure(pure, run);
  } else if (const ScenarioMaker make = FindScenario(run.operation)) {
    PlayScenario(make, run);
  } else {
    Torture(run).Play();
  }
  Tell();
  return 0;
}
