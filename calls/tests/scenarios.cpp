#include "scenarios.h"

#include <tarv/calls/caller.h>
#include <tarv/calls/kept_task.h>

#include <optional>
#include <utility>

#include "mistakes.h"

namespace tarv::test {

namespace {

using namespace std::chrono_literals;

constexpr char kTask[] = "misbehaving";
// Longer than any loaded machine needs; and enough for what never comes.
constexpr auto kLong = 60s;
constexpr auto kShort = 1s;
constexpr std::size_t kBound = 100000;      // of a message, or of a queue
constexpr std::int32_t kTooMuch = 1000000;  // for either

// One application with its Caller.
class Stage {
 public:
  explicit Stage(World& its_world) : world(its_world) {}

  void Begin(const std::string& mistake, Duration connect_timeout = kLong,
             const std::string& task = kTask) {
    caller =
        std::make_unique<Caller>(world.Start(task, mistake), world.GetLoop(),
                                 CallerOptions().TaskName(task).ConnectTimeout(connect_timeout));
  }
  // With a task that makes no mistake yet.
  void BeginConnected() {
    Begin("");
    const auto outcome = End(Ping());
    if (!outcome) {
      throw std::runtime_error(std::string("the task is not there: ") + outcome.GetError().what());
    }
  }

  Call<void> Ping(Duration timeout = kLong) const {
    return caller->Call(mistakes::kPing, CallOptions().Timeout(timeout));
  }
  Call<void> Do(const char* what, Duration timeout = kLong) const {
    return caller->Call(mistakes::kDo, what, CallOptions().Timeout(timeout));
  }

  template <class Result, class Step>
  Outcome<Result> End(const Call<Result, Step>& call) const {
    const auto ended = std::make_shared<std::optional<Outcome<Result>>>();
    call.Then([ended](Outcome<Result> outcome) { ended->emplace(std::move(outcome)); });
    if (!world.RunUntil([&ended] { return ended->has_value(); })) {
      throw std::runtime_error("the call never ends");
    }
    return std::move(**ended);
  }
  template <class Result, class Step>
  CallError Fail(const Call<Result, Step>& call) const {
    const Outcome<Result> outcome = End(call);
    if (outcome) {
      throw std::runtime_error("the call ends with a value");
    }
    return outcome.GetError();
  }

  World& world;
  std::unique_ptr<Caller> caller;
};

// ---- Until the task has connected

CallError PingOf(World& world, const char* mistake, Duration connect_timeout = kLong) {
  Stage stage(world);
  stage.Begin(mistake, connect_timeout);
  return stage.Fail(stage.Ping());
}

CallError PingNobody(World& world) {
  Stage stage(world);
  stage.Begin("", kLong, "nobody");
  return stage.Fail(stage.Ping());
}

CallError PingPlainFile(World& world) {
  Stage stage(world);
  stage.Begin("", kLong, "plain");
  return stage.Fail(stage.Ping());
}

CallError PingWithoutClient(World& world) {
  Caller caller(world.Start(std::string("no\0body", 7), ""), world.GetLoop());
  return Stage(world).Fail(caller.Call(mistakes::kPing));
}

CallError PingImpatiently(World& world) {
  Stage stage(world);
  stage.Begin(mistakes::kForgetsRun);
  return stage.Fail(stage.Ping(kShort));
}

// ---- A connected task

template <class Result, class Step>
CallError FailOnce(World& world, const Method<Result(), Step>& method, Duration timeout = kLong) {
  Stage stage(world);
  stage.BeginConnected();
  return stage.Fail(stage.caller->Call(method, CallOptions().Timeout(timeout)));
}

CallError FailAt(World& world, const char* what, Duration timeout = kLong) {
  Stage stage(world);
  stage.BeginConnected();
  return stage.Fail(stage.Do(what, timeout));
}

CallError SendAnotherType(World& world) {
  Stage stage(world);
  stage.BeginConnected();
  return stage.Fail(stage.caller->Call(mistakes::kEchoOfNumbers, 5));
}

CallError SendWhatNoMessageHolds(World& world) {
  static constexpr Method<void(std::uint64_t)> kPut{"put"};
  Stage stage(world);
  stage.BeginConnected();
  return stage.Fail(stage.caller->Call(kPut, ~std::uint64_t{0}));
}

CallError LoseOneOfTwo(World& world) {
  Stage stage(world);
  stage.BeginConnected();
  const auto innocent = stage.caller->Call(mistakes::kKeep);
  const auto guilty = stage.Do("crash");
  return stage.Fail(innocent);
}

CallError SendToATaskThatDoesNotRead(World& world) {
  world.LimitQueue(std::size_t{20} * kBound);
  Stage stage(world);
  stage.BeginConnected();
  const auto first = stage.Do("block");
  for (int i = 0; i < 4; ++i) {
    stage.caller->Call(mistakes::kEcho, std::string(kTooMuch, 'x'));
  }
  return stage.Fail(first);
}

CallError GetTooMuch(World& world, const char* mistake) {
  world.LimitMessages(kBound);
  Stage stage(world);
  stage.Begin(mistake);
  return stage.Fail(stage.caller->Call(mistakes::kFill, kTooMuch, CallOptions().Timeout(kLong)));
}

CallError SendTooMuch(World& world) {
  world.LimitMessages(kBound);
  Stage stage(world);
  stage.BeginConnected();
  return stage.Fail(stage.caller->Call(mistakes::kEcho, std::string(kTooMuch, 'x')));
}

CallError CallAfterTheEnd(World& world) {
  Stage stage(world);
  stage.BeginConnected();
  stage.Fail(stage.Do("exit"));
  return stage.Fail(stage.Ping());
}

// ---- What the application does

CallError EndManagerFirst(World& world) {
  Stage stage(world);
  stage.BeginConnected();
  const auto call = stage.Do("block", kForever);
  world.EndManager();
  return stage.Fail(call);
}

CallError Cancel(World& world) {
  Stage stage(world);
  stage.BeginConnected();
  const auto call = stage.caller->Call(mistakes::kKeep);
  call.Cancel();
  return stage.Fail(call);
}

CallError Release(World& world) {
  Stage stage(world);
  stage.BeginConnected();
  const auto call = stage.caller->Call(mistakes::kKeep);
  stage.caller.reset();
  return stage.Fail(call);
}

CallError WaitOnTheLoop(World& world) {
  Stage stage(world);
  stage.BeginConnected();
  return stage.Ping().Wait().GetError();
}

CallError CrashAgainAndAgain(World& world) {
  KeepPolicy policy;
  policy.first_pause = 1ms;
  KeptTask task([&world] { return world.Start(kTask, mistakes::kExitsAtStart); }, kTask, policy,
                world.GetLoop());
  const Stage stage(world);
  for (std::size_t i = 0; i < policy.most_deaths; ++i) {
    stage.Fail(task.Call(mistakes::kPing));
  }
  return stage.Fail(task.Call(mistakes::kPing));
}

// ---- The rows

constexpr std::string_view kNoProgram = "there is no program of that name, or it is not executable";
constexpr std::string_view kNoClient = "the manager refuses to make a client";
constexpr std::string_view kEarlyEnd = "the task exits, or is killed, before it has connected";
constexpr std::string_view kSilent =
    "the task never accepts, never answers the handshake, forgets `Run()`, sends garbage";
constexpr std::string_view kRefused = "the task refuses the handshake";
constexpr std::string_view kImpatient = "the call's time is over before the task has connected";
constexpr std::string_view kUnanswered =
    "the task keeps the request, drops the reply of a plain handler, blocks, is stopped";
constexpr std::string_view kThrows = "a handler throws";
constexpr std::string_view kEnd = "the task exits, or is killed by a signal";
constexpr std::string_view kLost =
    "the task hangs up, destroys its manager, or does not read until its queue is full";
constexpr std::string_view kOverBound = "a message is above this end's bound";

// The beginnings of texts.
std::string Of(const std::string& method) { return "'" + method + "' of the task 'misbehaving' "; }
std::string NotSent() { return Of("ping") + "was not sent: "; }
std::string Silent() {
  return NotSent() +
         "the task 'misbehaving' runs but has not answered the handshake for 1*: does it call "
         "server->Run()?";
}
std::string NoAnswer(const std::string& method) {
  return Of(method) + "was sent and has no answer: ";
}
std::string TimedOut(const std::string& method) {
  return Of(method) +
         "was not answered within 1 s: is its handler busy, or does it keep its request? "
         "CallOptions().Timeout() gives it longer";
}
std::string Answered(const std::string& method) { return Of(method) + "answered with the error "; }

constexpr char kProcess[] = "the task 'misbehaving' (process *) ";

}  // namespace

const std::vector<Scenario>& AllScenarios() {
  static const std::vector<Scenario> kScenarios{
      {"OfATaskThatDoesNotExist", kNoProgram, CallReason::kNotStarted, -32603,
       "'ping' of the task 'nobody' was not sent: the task 'nobody' cannot be started: there is no "
       "such executable; looked in: * (RUNTIME_MANAGER_TASK_PATH adds folders)",
       &PingNobody, true},
      {"OfATaskThatIsNotExecutable", kNoProgram, CallReason::kNotStarted, -32603,
       "'ping' of the task 'plain' was not sent: the task 'plain' cannot be started: '*/plain' is "
       "not executable: run chmod +x on it; looked in: *",
       &PingPlainFile, true},
      {"OfATaskWithoutAClient", kNoClient, CallReason::kNotStarted, 0,
       "'ping' of the task was not sent: there is no client: the manager refused to make one, and "
       "the log says why",
       &PingWithoutClient},
      {"OfATaskThatExitsAtItsStart", kEarlyEnd, CallReason::kTaskExited, -32001,
       NotSent() + kProcess + "exited with status 3 after *; its last words: there is no disk",
       [](World& world) { return PingOf(world, mistakes::kExitsAtStart); }},
      {"OfATaskThatDiesAtItsStart", kEarlyEnd, CallReason::kTaskKilled, -32002,
       NotSent() + kProcess + "was killed by signal 9 (SIGKILL) after *",
       [](World& world) { return PingOf(world, mistakes::kDiesAtStart); }},
      {"OfATaskThatExitsDuringTheHandshake", kEarlyEnd, CallReason::kTaskExited, -32001,
       NotSent() + kProcess + "exited with status 3 after *",
       [](World& world) { return PingOf(world, mistakes::kExitsInHandshake); }},
      {"OfATaskThatNeverAccepts", kSilent, CallReason::kNeverConnected, 0, Silent(),
       [](World& world) { return PingOf(world, mistakes::kNeverAccepts, kShort); }},
      {"OfATaskThatNeverAnswersTheHandshake", kSilent, CallReason::kNeverConnected, 0, Silent(),
       [](World& world) { return PingOf(world, mistakes::kNeverAnswers, kShort); }},
      {"OfATaskThatForgetsRun", kSilent, CallReason::kNeverConnected, 0, Silent(),
       [](World& world) { return PingOf(world, mistakes::kForgetsRun, kShort); }},
      {"OfATaskThatSendsGarbage", kSilent, CallReason::kNeverConnected, 0, Silent(),
       [](World& world) { return PingOf(world, mistakes::kSendsGarbage, kShort); }},
      {"OfATaskThatRefusesTheHandshake", kRefused, CallReason::kNeverConnected, 42,
       NotSent() + "it refuses the handshake: not today",
       [](World& world) { return PingOf(world, mistakes::kRefuses); }},
      {"OfAnImpatientCallToATaskThatDoesNotConnect", kImpatient, CallReason::kTimedOut, 0,
       "'ping' of the task 'misbehaving' was not sent within 1 s: the task has not connected; does "
       "it call server->Run()?",
       &PingImpatiently},
      {"OfARequestThatATaskKeeps", kUnanswered, CallReason::kTimedOut, 0, TimedOut("keep"),
       [](World& world) { return FailOnce(world, mistakes::kKeep, kShort); }},
      {"OfAReplyThatAPlainHandlerDrops", kUnanswered, CallReason::kTimedOut, 0, TimedOut("forget"),
       [](World& world) { return FailOnce(world, mistakes::kForget, kShort); }},
      {"OfAHandlerThatBlocksItsTask", kUnanswered, CallReason::kTimedOut, 0, TimedOut("do"),
       [](World& world) { return FailAt(world, "block", kShort); }},
      {"OfATaskThatIsStopped", kUnanswered, CallReason::kTimedOut, 0, TimedOut("do"),
       [](World& world) { return FailAt(world, "stop", kShort); }},
      {"OfACallWhoseManagerIsDestroyedFirst", "the application destroys its manager first",
       CallReason::kReleased, 0,
       NoAnswer("do") +
           "the ManagerWrapper that made its client was destroyed, and ended "
           "the task: keep it until the calls have ended, and destroy it after Caller and client",
       &EndManagerFirst},
      {"OfARequestThatAHandlerDrops", "a handler of a `Service` drops its request",
       CallReason::kAnswered, -32603,
       Answered("drop") + "-32603: The request 'drop' was dropped by its handler, "
                          "unanswered.",
       [](World& world) { return FailOnce(world, mistakes::kDrop); }},
      {"OfAHandlerThatThrows", kThrows, CallReason::kAnswered, -32603,
       Answered("do") + "-32603: the handler is tired",
       [](World& world) { return FailAt(world, "throw"); }},
      {"OfAHandlerThatRefuses", kThrows, CallReason::kAnswered, 7,
       Answered("do") + "7: there is no paper",
       [](World& world) { return FailAt(world, "refuse"); }},
      {"OfAMethodThatTheTaskDoesNotKnow", "the task does not know the method",
       CallReason::kAnswered, -32601,
       "'unknown' of the task 'misbehaving' is unknown to it: it answers do, drop, echo, fill, "
       "huge, ping",
       [](World& world) { return FailOnce(world, mistakes::kUnknown); }},
      {"OfParametersOfAnotherType", "the parameters are not of the task's type",
       CallReason::kAnswered, -32602,
       Answered("echo") + "-32602: params: expected a text, got int32 5: are application "
                          "and task built from the same contract?",
       &SendAnotherType},
      {"OfAResultOfAnotherType", "the result is of another type", CallReason::kBadAnswer, 0,
       "'wrong type' of the task 'misbehaving' was answered with something else than its contract "
       "says: result: expected a text, got int32 5: are application and task built from the same "
       "contract?",
       [](World& world) { return FailOnce(world, mistakes::kWrongType); }},
      {"OfAResultThatNoMessageHolds", "a result that no message holds", CallReason::kAnswered,
       -32603,
       Answered("huge") + "-32603: result: 18446744073709551615 is above 9223372036854775807, the "
                          "greatest integer of a message: send it as a text",
       [](World& world) { return FailOnce(world, mistakes::kHuge); }},
      {"OfAParameterThatNoMessageHolds",
       "a parameter that no message holds: an integer above int64, an enumeration's value without "
       "a name, a custom value, nesting above 509 levels",
       CallReason::kBadArguments, 0,
       "'put' of the task 'misbehaving' was not sent: params: 18446744073709551615 is above "
       "9223372036854775807, the greatest integer of a message: send it as a text",
       &SendWhatNoMessageHolds},
      {"OfATaskThatExits", kEnd, CallReason::kTaskExited, -32001,
       NoAnswer("do") + kProcess + "exited with status 3 after *; its last words: I give up",
       [](World& world) { return FailAt(world, "exit"); }},
      {"OfATaskThatCrashes", kEnd, CallReason::kTaskKilled, -32002,
       NoAnswer("do") + kProcess +
           "was killed by signal 11 (SIGSEGV)* after *; its last words: a wild pointer",
       [](World& world) { return FailAt(world, "crash"); }},
      {"OfACallBesideTheOneThatCrashesTheTask", kEnd, CallReason::kTaskKilled, -32002,
       NoAnswer("keep") + kProcess +
           "was killed by signal 11 (SIGSEGV)* after *; its last words: a wild pointer; under way: "
           "'do', 'keep'",
       &LoseOneOfTwo},
      {"OfATaskThatHangsUp", kLost, CallReason::kConnectionLost, -32003,
       NoAnswer("do") + "task 'misbehaving' closed the connection, or has ended",
       [](World& world) { return FailAt(world, "hang up"); }},
      {"OfATaskThatDestroysItsManager", kLost, CallReason::kConnectionLost, -32003,
       NoAnswer("end manager") + "task 'misbehaving' closed the connection, or has ended",
       [](World& world) { return FailOnce(world, mistakes::kEndManager); }},
      {"OfATaskThatDoesNotRead", kLost, CallReason::kConnectionLost, -32005,
       NoAnswer("do") + "task 'misbehaving' does not read: more than the 2000000 "
                        "bytes that RUNTIME_MANAGER_MAX_QUEUE sets would wait for it; under way: "
                        "'do', 'echo' (4)",
       &SendToATaskThatDoesNotRead},
      {"OfAnAnswerThatIsTooLarge", kOverBound, CallReason::kTooLarge, -32004,
       NoAnswer("fill") + "task 'misbehaving' sent a line over the bound of 100000 "
                          "bytes that RUNTIME_MANAGER_MAX_MESSAGE sets",
       [](World& world) { return GetTooMuch(world, mistakes::kHasNoBound); }},
      {"OfParametersThatAreTooLarge", kOverBound, CallReason::kTooLarge, -32004,
       NoAnswer("echo") + "a message to task 'misbehaving' is over the bound of "
                          "100000 bytes that RUNTIME_MANAGER_MAX_MESSAGE sets",
       &SendTooMuch},
      {"OfAnAnswerThatIsTooLargeForTheTask", "an answer is above the task's own bound",
       CallReason::kConnectionLost, -32003,
       NoAnswer("fill") + "task 'misbehaving' closed the connection, or has ended",
       [](World& world) { return GetTooMuch(world, ""); }},
      {"OfACallThatIsCancelled", "the call is cancelled", CallReason::kCancelled, 0,
       "'keep' of the task 'misbehaving' was cancelled by Call::Cancel", &Cancel},
      {"OfACallWhoseCallerIsDestroyed", "the Caller or KeptTask is destroyed",
       CallReason::kReleased, 0,
       "'keep' of the task 'misbehaving' was open when its Caller was destroyed: keep the Caller "
       "until its calls have ended",
       &Release},
      {"OfACallAfterTheEnd", "a call is made after the end", CallReason::kTaskExited, -32001,
       NotSent() + kProcess +
           "exited with status 3 after *; its last words: I give up; under way: 'do'",
       &CallAfterTheEnd},
      {"OfATaskThatCrashesAgainAndAgain", "a kept task has died five times within three minutes",
       CallReason::kCrashLoop, -32001,
       NotSent() +
           "the task 'misbehaving' has died 5 times within 180 s and is not started "
           "again for now; its last words: " +
           std::string(kProcess) + "exited with status 3 after *; its last words: there is no disk",
       &CrashAgainAndAgain},
      {"OfAWaitOnTheLoopsOwnThread", "`Wait()` on the loop's own thread", CallReason::kWouldBlock,
       0,
       "Wait() for 'ping' of the task 'misbehaving' on the thread of its loop would never end: use "
       "Then() or co_await there",
       &WaitOnTheLoop},
  };
  return kScenarios;
}

namespace {

// Whether the text is the pattern's, each * of which stands for any part.
bool Fits(std::string_view text, std::string_view pattern) {
  if (pattern.empty()) {
    return text.empty();
  }
  if (pattern.front() != '*') {
    return !text.empty() && text.front() == pattern.front() &&
           Fits(text.substr(1), pattern.substr(1));
  }
  return Fits(text, pattern.substr(1)) || (!text.empty() && Fits(text.substr(1), pattern));
}

void AddDifference(std::string& differences, const char* what, std::string_view got,
                   std::string_view expected) {
  differences.append(what).append(" is\n  ").append(got).append("\nexpected\n  ");
  differences.append(expected).append("\n");
}

}  // namespace

std::string Compare(const Scenario& scenario, const CallError& error) {
  std::string differences;
  if (error.GetReason() != scenario.reason) {
    AddDifference(differences, "the reason", NameOf(error.GetReason()), NameOf(scenario.reason));
  }
  if (error.GetCode() != scenario.code) {
    AddDifference(differences, "the code", std::to_string(error.GetCode()),
                  std::to_string(scenario.code));
  }
  if (!Fits(error.what(), scenario.text)) {
    AddDifference(differences, "the text", error.what(), scenario.text);
  }
  return differences;
}

}  // namespace tarv::test
