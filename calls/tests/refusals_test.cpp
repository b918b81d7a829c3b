// Each allocation of each operation is refused in its turn, alone and with all that follow it: what
// throws has done nothing, and what does not throw has its end.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <tarv/calls/caller.h>
#include <tarv/calls/service.h>
#include <tarv/calls/workers.h>

#include <atomic>
#include <chrono>
#include <filesystem>
#include <future>
#include <iterator>
#include <memory>
#include <optional>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "link.h"
#include "refusal.h"
#include "values.h"

namespace {

using counting::kCount;
using counting::kNext;
using counting::kPing;
using counting::Step;
using counting::Texts;
using counting::Totals;
using tarv::CallOptions;
using tarv::CallReason;
using tarv::Request;
using tarv::test::Ending;
using tarv::test::Link;
using tarv::test::Met;
using tarv::test::RefuseEach;
using tarv::test::Where;
using vorpc::Message;
using namespace std::chrono_literals;

constexpr tarv::Method<void()> kUnknown{"a method that nobody answers"};
constexpr char kLong[] = "a text that is too long to stand where the text itself stands";

// How one call ended.
struct End {
  int times = 0;
  std::optional<CallReason> reason;  // none for a value
  bool is_on_loop = true;            // where its consumer ran
};

// An application with a Caller and a task with a Service, connected.
struct World {
  struct Unconnected {};

  World() : World(Unconnected()) {
    service->Run();
    link.Pump();
  }
  explicit World(Unconnected /*until the service runs*/) {
    ends.reserve(10);
    open.reserve(10);
    stepping.reserve(10);
    service->On(kNext, [] { return 1; });
    service->On(kPing, [this](const Request<void>& request) { open.push_back(request); });
    service->On(kCount, [this](const Texts&, const Request<Totals, Step>& request) {
      stepping.push_back(request);
    });
  }

  // Has the call's end written down.
  template <class CallType>
  void Hear(const CallType& heard) {
    const std::size_t number = ends.size();
    ends.emplace_back();
    heard.Then([this, number](const auto& outcome) {
      ++ends[number].times;
      ends[number].is_on_loop = link.loop->IsCurrent();
      ends[number].reason = outcome ? std::nullopt : std::optional(outcome.GetError().GetReason());
    });
  }
  // A call to "ping" that its handler keeps.
  tarv::Call<void> Keep(const CallOptions& options = {}) {
    auto kept = caller->Call(kPing, options);
    link.Pump();
    return kept;
  }
  // As a transport does that loses a message for want of memory.
  void LoseConnection() { link.client->Disconnect(Message::Error(-32003, "a message is lost")); }

  // Lets everything end, and asks that each call did so once and that a further one is answered.
  void ExpectWell() {
    open.clear();
    stepping.clear();
    link.Pump();
    link.loop->Advance(1h);
    for (std::size_t i = 0; i < ends.size(); ++i) {
      EXPECT_EQ(ends[i].times, 1) << "call " << i;
      EXPECT_TRUE(ends[i].is_on_loop) << "call " << i;
    }
    const Ending<std::int32_t> next(caller->Call(kNext));
    link.Pump();
    EXPECT_TRUE(next.Count() == 1 && (!link.client->IsConnected() || next.Get().HasValue()));
    ExpectNothingInFlight(caller->GetMetrics());
    ExpectNothingInFlight(service->GetMetrics());
  }
  static void ExpectNothingInFlight(const tarv::Metrics& metrics) {
    for (const auto& [name, method] : metrics.methods) {
      EXPECT_EQ(method.in_flight, 0U) << name;
    }
  }

  std::vector<End> ends;
  Link link;
  std::shared_ptr<tarv::Service> service = tarv::Service::For(link.server, link.loop);
  std::unique_ptr<tarv::Caller> caller = std::make_unique<tarv::Caller>(
      link.client, link.loop, tarv::CallerOptions().TaskName("words"));
  std::vector<Request<void>> open;
  std::vector<Request<Totals, Step>> stepping;
  std::optional<tarv::Call<void>> call;
  std::optional<tarv::Call<Totals, Step>> stepping_call;
};

// Without any memory for that, the task works for nobody.
void ExpectCancelled(World& world, const Met& met) {
  for (const auto& request : world.open) {
    EXPECT_TRUE(request.IsCancelled() || met.goes_on);
  }
}

void ExpectBegunOrNot(World& world, const Met& met) {
  world.link.Pump();
  if (met.threw) {
    ExpectCancelled(world, met);
  } else {
    world.Hear(*world.call);
    ASSERT_EQ(world.open.size(), 1U);
    world.open[0].Answer();
    world.link.Pump();
    EXPECT_EQ(world.ends[0].times, 1);
    EXPECT_EQ(world.ends[0].reason, std::nullopt);
  }
  world.ExpectWell();
}

TEST(EachRefusal, OfACallThatBeginsLeavesNoneOrAWholeOne) {
  RefuseEach<World>(
      [](World& world) { world.call = world.caller->Call(kPing, CallOptions().Timeout(30s)); },
      ExpectBegunOrNot);
}

TEST(EachRefusal, OfACallThatBeginsOnAThreadLeavesNoneOrAWholeOne) {
  RefuseEach<World>(
      Where::kOnAThread, [](World& world) { world.call = world.caller->Call(kPing); },
      ExpectBegunOrNot);
}

TEST(EachRefusal, OfACallWithStepsLeavesNoneOrAWholeOne) {
  RefuseEach<World>(
      [](World& world) { world.stepping_call = world.caller->Call(kCount, {{kLong}}); },
      [](World& world, const Met& met) {
        int steps = 0;
        if (!met.threw) {
          world.Hear(*world.stepping_call);
          world.stepping_call->OnProgress([&steps](Step) { ++steps; });
        }
        world.link.Pump();
        for (const auto& request : world.stepping) {
          EXPECT_TRUE(request.IsCancelled() == met.threw || met.goes_on);
          request.Progress({1, 2});
          request.Answer({});
        }
        world.link.Pump();
        EXPECT_EQ(steps, met.threw ? 0 : 1);
        world.ExpectWell();
      });
}

// The loop's thread has what another one asked for, when memory runs out for it.
struct WorldWithACallOnItsWay : World {
  WorldWithACallOnItsWay() {
    std::thread([this] { Hear(caller->Call(kPing)); }).join();
  }
};

TEST(EachRefusal, OfACallOnItsWayToTheLoopEndsIt) {
  RefuseEach<WorldWithACallOnItsWay>([](World& world) { world.link.loop->RunNext(); },
                                     [](World& world, const Met& met) {
                                       EXPECT_FALSE(met.threw);
                                       world.link.Pump();
                                       if (world.ends[0].times == 1) {
                                         EXPECT_EQ(world.ends[0].reason, CallReason::kOutOfMemory);
                                         for (const auto& request : world.open) {
                                           EXPECT_TRUE(request.IsCancelled() || met.goes_on);
                                         }
                                       }
                                       world.ExpectWell();
                                     });
}

struct WorldWithAnOpenCall : World {
  WorldWithAnOpenCall() {
    call = Keep();
    Hear(*call);
  }
};

void ExpectCancelledOrNot(World& world, const Met& met) {
  world.link.Pump();
  EXPECT_EQ(world.ends[0].times, met.threw ? 0 : 1);
  if (met.threw) {
    EXPECT_FALSE(world.open[0].IsCancelled());
    world.open[0].Answer();
    world.link.Pump();
    EXPECT_EQ(world.ends[0].reason, std::nullopt);
  } else {
    EXPECT_EQ(world.ends[0].reason, CallReason::kCancelled);
  }
  world.ExpectWell();
}

TEST(EachRefusal, OfACancelLeavesTheCallOrEndsIt) {
  const auto cancel = [](World& world) { world.call->Cancel(); };
  RefuseEach<WorldWithAnOpenCall>(cancel, ExpectCancelledOrNot);
  RefuseEach<WorldWithAnOpenCall>(Where::kOnAThread, cancel, ExpectCancelledOrNot);
}

struct WorldWithAnEndedCall : World {
  WorldWithAnEndedCall() {
    call = Keep();
    open[0].Answer();
    link.Pump();
  }
  const std::shared_ptr<int> witness = std::make_shared<int>(0);
};

TEST(EachRefusal, OfAConsumerLeavesTheCallWithout) {
  const auto consume = [](WorldWithAnEndedCall& world) {
    world.call->Then([witness = world.witness](const auto& /*outcome*/) { ++*witness; });
  };
  const auto check = [](WorldWithAnEndedCall& world, const Met& met) {
    if (met.threw) {
      EXPECT_EQ(world.witness.use_count(), 1) << "the consumer is kept";
      world.Hear(*world.call);
    }
    world.link.Pump();
    EXPECT_EQ(*world.witness, met.threw ? 0 : 1);
    world.ExpectWell();
  };
  RefuseEach<WorldWithAnEndedCall>(consume, check);
  RefuseEach<WorldWithAnEndedCall>(Where::kOnAThread, consume, check);
}

// Has the latest thing that a world's constructor left to do meet the refusals. Where a message is lost
// for want of memory, the connection is.
template <class WorldType, class Check>
void RefuseEachOfNews(const Check& check) {
  const auto hear = [](World& world) { world.link.loop->RunNext(); };
  const auto check_all = [&check](WorldType& world, const Met& met) {
    if (met.threw) {
      world.LoseConnection();
    }
    world.link.Pump();
    check(world, met);
    world.ExpectWell();
  };
  RefuseEach<WorldType>(Where::kHere, hear, check_all);
  RefuseEach<WorldType>(Where::kOnAThread, hear, check_all);
}

struct WorldWithAnAnswer : WorldWithAnOpenCall {
  WorldWithAnAnswer() { open[0].Answer(); }
};

TEST(EachRefusal, OfAnAnswerEndsItsCall) {
  RefuseEachOfNews<WorldWithAnAnswer>(
      [](World& world, const Met& /*met*/) { EXPECT_EQ(world.ends[0].times, 1); });
}

struct WorldWithAnError : WorldWithAnOpenCall {
  WorldWithAnError() { open[0].Fail(7, kLong); }
};

TEST(EachRefusal, OfAnErrorEndsItsCallWithThat) {
  RefuseEachOfNews<WorldWithAnError>([](World& world, const Met& met) {
    EXPECT_EQ(world.ends[0].times, 1);
    EXPECT_EQ(world.ends[0].reason,
              met.threw ? CallReason::kConnectionLost : CallReason::kAnswered);
  });
}

struct WorldWithAnUnknownMethod : World {
  WorldWithAnUnknownMethod() {
    Hear(caller->Call(kUnknown));
    link.loop->RunNext();  // the task answers
  }
};
struct WorldWithTheNames : WorldWithAnUnknownMethod {
  WorldWithTheNames() {
    link.loop->RunNext();  // the application asks for the names
    link.loop->RunNext();
  }
};

TEST(EachRefusal, OfAnErrorThatAsksForNamesEndsItsCallWithThat) {
  const auto check = [](World& world, const Met& met) {
    EXPECT_EQ(world.ends[0].times, 1);
    if (!met.threw) {
      EXPECT_EQ(world.ends[0].reason, CallReason::kAnswered);
    }
  };
  RefuseEachOfNews<WorldWithAnUnknownMethod>(check);
  RefuseEachOfNews<WorldWithTheNames>(check);
}

struct WorldWithAStep : World {
  WorldWithAStep() {
    stepping_call = caller->Call(kCount, {});
    stepping_call->OnProgress([this](Step) { ++steps; });
    Hear(*stepping_call);
    link.Pump();
    stepping[0].Progress({1, 2});
  }
  int steps = 0;
};

TEST(EachRefusal, OfAStepLeavesItsCallOpen) {
  RefuseEachOfNews<WorldWithAStep>([](WorldWithAStep& world, const Met& met) {
    if (!met.threw) {
      EXPECT_EQ(world.ends[0].times, 0);
      world.stepping[0].Progress({2, 2});
      world.stepping[0].Answer({});
      world.link.Pump();
      EXPECT_GE(world.steps, 1);
      EXPECT_EQ(world.ends[0].reason, std::nullopt);
    }
  });
}

// Calls wait for the connection, and the news of it is on its way.
struct WorldThatConnects : World {
  WorldThatConnects() : World(Unconnected()) {
    Hear(caller->Call(kPing));
    Hear(caller->Call(kNext));
    service->Run();
    link.loop->RunNext();  // the task answers the handshake
  }
};

TEST(EachRefusal, OfTheConnectionEndsTheCallsThatWaitForIt) {
  RefuseEachOfNews<WorldThatConnects>([](World& world, const Met& met) {
    if (world.ends[0].times == 0) {
      EXPECT_EQ(world.open.size(), 1U);
    } else if (!met.threw) {
      ExpectCancelled(world, met);
    }
    EXPECT_EQ(world.ends[1].times, 1);
  });
}

struct WorldWithALoss : WorldWithAnOpenCall {
  WorldWithALoss() {
    Hear(Keep());
    link.loop->Post([this] { LoseConnection(); });
  }
};

// On another thread, where memory runs out for passing it on, they end at their deadlines.
TEST(EachRefusal, OfALossEndsAllCallsWithThat) {
  RefuseEachOfNews<WorldWithALoss>([](World& world, const Met& met) {
    for (const End& end : world.ends) {
      EXPECT_TRUE(end.times == 1 || met.threw);
      EXPECT_TRUE(end.reason == CallReason::kConnectionLost || met.threw);
    }
  });
}

struct WorldWithDeadlines : World {
  WorldWithDeadlines() {
    Hear(Keep(CallOptions().Timeout(1s)));
    Hear(Keep(CallOptions().Timeout(2s)));
  }
};

TEST(EachRefusal, OfADeadlineEndsItsCallAndMayEndTheNext) {
  RefuseEach<WorldWithDeadlines>([](World& world) { world.link.loop->Advance(1s); },
                                 [](World& world, const Met& met) {
                                   if (met.threw) {
                                     world.LoseConnection();
                                   }
                                   world.link.Pump();
                                   EXPECT_EQ(world.ends[0].reason, CallReason::kTimedOut);
                                   world.link.loop->Advance(1s);
                                   EXPECT_EQ(world.ends[1].times, 1);
                                   world.ExpectWell();
                                 });
}

struct WorldWithARequest : World {
  WorldWithARequest() { Hear(caller->Call(kPing)); }
};

TEST(EachRefusal, OfARequestAnswersItOrEndsTheConnection) {
  RefuseEachOfNews<WorldWithARequest>([](World& world, const Met& met) {
    EXPECT_EQ(world.ends[0].times + static_cast<int>(world.open.size()), 1) << met.threw;
  });
}

struct WorldWithACancel : WorldWithAnOpenCall {
  WorldWithACancel() {
    open[0].OnCancel([this] { ++told; });
    call->Cancel();
    link.loop->RunNext();  // the call ends
  }
  int told = 0;
};

TEST(EachRefusal, OfACancellationTellsTheHandlerOrEndsTheConnection) {
  RefuseEachOfNews<WorldWithACancel>([](WorldWithACancel& world, const Met& met) {
    EXPECT_EQ(world.open[0].IsCancelled(), !met.threw);
    EXPECT_EQ(world.told, met.threw ? 0 : 1);
  });
}

// What a handler does with a request that it kept, on the loop's thread and on another one.
template <class Act, class Check>
void RefuseEachOfARequest(const Act& act, const Check& check) {
  const auto check_all = [&check](World& world, const Met& met) {
    world.link.Pump();
    check(world, met);
    world.ExpectWell();
  };
  RefuseEach<WorldWithAnOpenCall>(Where::kHere, act, check_all);
  RefuseEach<WorldWithAnOpenCall>(Where::kOnAThread, act, check_all);
}

TEST(EachRefusal, OfAHandlersAnswerLeavesTheRequestOpen) {
  RefuseEachOfARequest([](World& world) { world.open[0].Answer(); },
                       [](World& world, const Met& met) {
                         EXPECT_EQ(world.ends[0].times, met.threw ? 0 : 1);
                         if (met.threw) {
                           world.open[0].Answer();
                           world.link.Pump();
                         }
                         EXPECT_EQ(world.ends[0].reason, std::nullopt);
                       });
}

TEST(EachRefusal, OfAHandlersErrorLeavesTheRequestOpen) {
  RefuseEachOfARequest([](World& world) { world.open[0].Fail(7, "no"); },
                       [](World& world, const Met& met) {
                         EXPECT_EQ(world.ends[0].times, met.threw ? 0 : 1);
                         if (met.threw) {
                           world.open[0].Fail(7, "no");
                           world.link.Pump();
                         }
                         EXPECT_EQ(world.ends[0].reason, CallReason::kAnswered);
                       });
}

TEST(EachRefusal, OfADroppedRequestHasItAnsweredWithTheNext) {
  RefuseEachOfARequest([](World& world) { world.open.clear(); },
                       [](World& world, const Met& met) {
                         EXPECT_FALSE(met.threw);
                         const Ending<std::int32_t> next(world.caller->Call(kNext));
                         world.link.Pump();
                         EXPECT_EQ(world.ends[0].times, 1);
                         EXPECT_EQ(world.ends[0].reason, CallReason::kAnswered);
                       });
}

TEST(EachRefusal, OfACancelCallbackLeavesTheEarlierOne) {
  int told = 0;
  RefuseEachOfARequest(
      [&told](World& world) {
        told = 0;
        world.open[0].OnCancel([&told, text = std::string(kLong)] { ++told; });
      },
      [&told](World& world, const Met& met) {
        world.call->Cancel();
        world.link.Pump();
        EXPECT_EQ(told, met.threw ? 0 : 1);
      });
}

// The callback runs soon, since the application has cancelled.
struct WorldWithACancelledCall : WorldWithAnOpenCall {
  WorldWithACancelledCall() {
    call->Cancel();
    link.Pump();
  }
  const std::shared_ptr<int> witness = std::make_shared<int>(0);
};

TEST(EachRefusal, OfACallbackOfWhatIsCancelledKeepsNone) {
  const auto act = [](WorldWithACancelledCall& world) {
    world.open[0].OnCancel([witness = world.witness] { ++*witness; });
  };
  const auto check = [](WorldWithACancelledCall& world, const Met& met) {
    world.link.Pump();
    EXPECT_EQ(*world.witness, met.threw ? 0 : 1);
    EXPECT_EQ(world.witness.use_count(), 1) << "the callback is kept";
    world.ExpectWell();
  };
  RefuseEach<WorldWithACancelledCall>(Where::kHere, act, check);
  RefuseEach<WorldWithACancelledCall>(Where::kOnAThread, act, check);
}

TEST(EachRefusal, OfAHandlersStepSendsNoneOrAWholeOne) {
  struct WorldWithSteps : World {
    WorldWithSteps() {
      stepping_call = caller->Call(kCount, {});
      stepping_call->OnProgress([this](Step) { ++steps; });
      Hear(*stepping_call);
      link.Pump();
    }
    int steps = 0;
  };
  RefuseEach<WorldWithSteps>(
      [](World& world) {
        world.stepping[0].Progress({1, 2});
      },
      [](WorldWithSteps& world, const Met& met) {
        world.link.Pump();
        EXPECT_EQ(world.steps, met.threw ? 0 : 1);
        world.stepping[0].Answer({});
        world.link.Pump();
        EXPECT_EQ(world.ends[0].reason, std::nullopt);
        world.ExpectWell();
      });
}

TEST(EachRefusal, OfAMethodLeavesTheEarlierHandler) {
  RefuseEach<World>([](World& world) { world.service->On(kNext, [] { return 2; }); },
                    [](World& world, const Met& met) {
                      const Ending<std::int32_t> next(world.caller->Call(kNext));
                      world.link.Pump();
                      EXPECT_EQ(*next.Get(), met.threw ? 1 : 2);
                      world.ExpectWell();
                    });
}

// Both ends of the plain client and server.
struct BareWorld {
  Link link;
  std::shared_ptr<tarv::Service> service;
  std::unique_ptr<tarv::Caller> caller;
};

TEST(EachRefusal, OfAServiceLeavesTheServerToTheNext) {
  RefuseEach<BareWorld>(
      [](BareWorld& world) {
        world.service = tarv::Service::For(world.link.server, world.link.loop);
      },
      [](BareWorld& world, const Met& met) {
        EXPECT_EQ(world.service == nullptr, met.threw);
        const auto service = tarv::Service::For(world.link.server, world.link.loop);
        EXPECT_TRUE(met.threw || service == world.service);
        service->On(kNext, [] { return 1; });
        service->Run();
        tarv::Caller caller(world.link.client, world.link.loop);
        const Ending<tarv::Description> description(caller.Call(tarv::kDescribe));
        const Ending<std::int32_t> next(caller.Call(kNext));
        world.link.Pump();
        EXPECT_EQ(*next.Get(), 1);
        EXPECT_EQ(description.Get()->methods.size(), 1U);
      });
}

TEST(EachRefusal, OfACallerLetsItsClientGo) {
  RefuseEach<BareWorld>(
      [](BareWorld& world) {
        world.caller =
            std::make_unique<tarv::Caller>(std::move(world.link.client), world.link.loop);
      },
      [](BareWorld& world, const Met& met) {
        EXPECT_EQ(world.caller == nullptr, met.threw);
        world.link.client.reset();
        world.link.loop->Advance(1h);
        EXPECT_EQ(world.link.weak_client.expired(), met.threw);
        world.link.Pump();
      });
}

TEST(EachRefusal, OfTheCallersEndEndsItsCalls) {
  RefuseEach<WorldWithALoss>([](World& world) { world.caller.reset(); },
                             [](World& world, const Met& met) {
                               EXPECT_FALSE(met.threw);
                               for (const End& end : world.ends) {
                                 EXPECT_EQ(end.times, 1);
                                 EXPECT_EQ(end.reason, CallReason::kReleased);
                               }
                             });
}

TEST(EachRefusal, OfTheServicesEndLeavesNoHandler) {
  RefuseEach<WorldWithAnOpenCall>([](World& world) { world.service.reset(); },
                                  [](World& world, const Met& met) {
                                    EXPECT_FALSE(met.threw);
                                    const Ending<std::int32_t> next(world.caller->Call(kNext));
                                    world.link.Pump();
                                    EXPECT_EQ(next.Get().GetError().GetCode(), -32601);
                                    world.open[0].Answer();
                                    world.link.Pump();
                                    EXPECT_EQ(world.ends[0].reason, std::nullopt);
                                  });
}

struct Nothing {};

std::size_t CountThreads() {
  const std::filesystem::directory_iterator threads("/proc/self/task");
  return static_cast<std::size_t>(std::distance(begin(threads), end(threads)));
}

// What is joined is listed for a moment.
bool AreThereOnly(std::size_t threads) {
  const auto limit = std::chrono::steady_clock::now() + std::chrono::seconds(30);
  while (CountThreads() > threads && std::chrono::steady_clock::now() < limit) {
    std::this_thread::yield();
  }
  return CountThreads() <= threads;
}

TEST(EachRefusal, OfWorkersLeavesNoThread) {
  std::thread([] {}).join();  // a sanitizer has a thread of its own from the first one on
  const std::size_t before = CountThreads();
  std::optional<tarv::Workers> workers;
  RefuseEach<Nothing>([&workers](Nothing& /*world*/) { workers.emplace(3); },
                      [&](Nothing& /*world*/, const Met& met) {
                        EXPECT_EQ(workers.has_value(), !met.threw);
                        workers.reset();
                        ASSERT_TRUE(AreThereOnly(before));
                      });
}

struct WorldWithAWorker {
  std::optional<tarv::Workers> workers{std::in_place, 1};
  const std::shared_ptr<std::atomic<int>> runs = std::make_shared<std::atomic<int>>(0);
};

TEST(EachRefusal, OfAJobRunsItOrLetsItGo) {
  RefuseEach<WorldWithAWorker>(
      [](WorldWithAWorker& world) { world.workers->Post([runs = world.runs] { ++*runs; }); },
      [](WorldWithAWorker& world, const Met& met) {
        std::promise<void> done;
        world.workers->Post([&done] { done.set_value(); });
        done.get_future().wait();
        EXPECT_EQ(*world.runs, met.threw ? 0 : 1);
      });
}

struct WorldWithABusyWorker : WorldWithAWorker {
  WorldWithABusyWorker() {
    workers->Post([ending = workers->GetEndingFlag()] {
      while (!*ending) {
        std::this_thread::yield();
      }
    });
    workers->Post([held = runs] { ++*held; });
  }
};

TEST(EachRefusal, OfTheWorkersEndDropsTheirJobs) {
  RefuseEach<WorldWithABusyWorker>([](WorldWithAWorker& world) { world.workers.reset(); },
                                   [](WorldWithAWorker& world, const Met& met) {
                                     EXPECT_FALSE(met.threw);
                                     EXPECT_EQ(*world.runs, 0);
                                     EXPECT_EQ(world.runs.use_count(), 1) << "a job is kept";
                                   });
}

}  // namespace
