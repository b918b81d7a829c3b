// Everything may be destroyed inside every callback: a test for each pair, on Qt's loop.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <tarv/calls/caller.h>
#include <tarv/calls/service.h>

#include <QCoreApplication>
#include <QEventLoop>
#include <algorithm>
#include <atomic>
#include <tuple>

#include "link.h"
#include "values.h"

namespace {

using counting::kCount;
using counting::kNext;
using counting::kPing;
using counting::kSay;
using counting::Step;
using counting::Texts;
using counting::Totals;
using tarv::CallOptions;
using tarv::Outcome;
using tarv::Request;
using tarv::Running;
using namespace std::chrono_literals;

// What is destroyed. The loop goes when nobody holds it, so it goes with everything.
enum class Thing { kCaller, kService, kRequests, kWorkers, kClient, kServer, kCalls, kEverything };
constexpr const char* kThings[] = {"Caller", "Service", "Requests", "Workers",
                                   "Client", "Server",  "Calls",    "EverythingWithItsLoop"};

// Where it is destroyed.
enum class Moment {
  kValue,
  kAnsweredError,
  kTimeOut,
  kCancel,
  kLoss,
  kBadArguments,
  kRelease,
  kStep,
  kHandler,
  kHandlerThatKeeps,
  kOnCancel,
  kWorker,
  kPosted,
  kWoken,
};
constexpr const char* kMoments[] = {"AConsumerOfAValue",
                                    "AConsumerOfAnError",
                                    "AConsumerOfATimeOut",
                                    "AConsumerOfACancel",
                                    "AConsumerOfALoss",
                                    "AConsumerOfABadArgument",
                                    "AConsumerOfItsRelease",
                                    "AProgressHandler",
                                    "AHandler",
                                    "AHandlerThatKeeps",
                                    "AnOnCancel",
                                    "AWorkersHandler",
                                    "APostedFunction",
                                    "AFunctionThatWasToBeWoken"};

int argument_count = 1;
char program_name[] = "calls_tests";
char* arguments[] = {program_name, nullptr};

// How often calls were begun, and ended.
struct Counts {
  int begun = 0;
  int ended = 0;
  int most_of_one = 0;
};

// All there is, on the loop of this thread.
struct Everything {
  Everything() {
    service->On(kNext, [] { return 1; });
    service->On(kPing, [this](const Request<void>& request) { requests.push_back(request); });
    service->Run();
  }

  tarv::test::LinkOn<tarv::Loop> link{tarv::Loop::OfThisThread()};
  std::unique_ptr<tarv::Workers> workers = std::make_unique<tarv::Workers>(2);
  std::shared_ptr<tarv::Service> service = tarv::Service::For(link.server, link.loop);
  std::unique_ptr<tarv::Caller> caller = std::make_unique<tarv::Caller>(link.client, link.loop);
  std::vector<Request<void>> requests;
  std::vector<tarv::Call<void>> calls;
};

using Case = std::tuple<Thing, Moment>;

class Lifetimes : public testing::TestWithParam<Case> {
 protected:
  template <class Result, class Progress>
  void Count(const tarv::Call<Result, Progress>& call, std::function<void()> then = nullptr) {
    ++counts_->begun;
    call.Then([counts = counts_, times = std::make_shared<int>(0),
               then = std::move(then)](const Outcome<Result>&) {
      ++counts->ended;
      counts->most_of_one = std::max(counts->most_of_one, ++*times);
      if (then) {
        then();
      }
    });
  }

  void Act() {
    if (all_) {
      Destroy(std::get<Thing>(GetParam()));
    }
    acted_ = true;
  }
  void Destroy(Thing thing) {
    switch (thing) {
      case Thing::kCaller:
        all_->caller.reset();
        break;
      case Thing::kService:
        all_->service.reset();
        break;
      case Thing::kRequests:
        all_->requests.clear();
        break;
      case Thing::kWorkers:
        all_->workers.reset();
        break;
      case Thing::kClient:
        all_->link.client.reset();
        break;
      case Thing::kServer:
        all_->link.server.reset();
        break;
      case Thing::kCalls:
        all_->calls.clear();
        break;
      case Thing::kEverything:
        all_.reset();
    }
  }

  // Sees to it that the moment comes.
  void Prepare(Moment moment) {
    const auto act = [this] { Act(); };
    tarv::Service& service = *all_->service;
    tarv::Caller& caller = *all_->caller;
    switch (moment) {
      case Moment::kValue:
        Count(caller.Call(kNext), act);
        break;
      case Moment::kAnsweredError:
        Count(caller.Call(kSay, "x"), act);  // there is no such method
        break;
      case Moment::kTimeOut:
        Count(caller.Call(kPing, CallOptions().Timeout(20ms)), act);
        break;
      case Moment::kCancel:
        all_->calls.push_back(caller.Call(kPing));
        Count(all_->calls.back(), act);
        all_->calls.back().Cancel();
        break;
      case Moment::kLoss:
        Count(caller.Call(kPing), act);
        all_->link.loop->Post([this] { all_->link.client->Disconnect(std::nullopt); });
        break;
      case Moment::kBadArguments: {
        static constexpr tarv::Method<void(std::uint64_t)> kPut{"put"};
        Count(caller.Call(kPut, ~std::uint64_t{0}), act);
        break;
      }
      case Moment::kRelease:
        Count(caller.Call(kPing), act);
        all_->link.loop->Post([this] { all_->caller.reset(); });
        break;
      case Moment::kStep: {
        service.On(kCount, [](const Texts&, const Request<Totals, Step>& request) {
          request.Progress({1, 2});
          request.Progress({2, 2});
          request.Answer({});
        });
        const auto call = caller.Call(kCount, {});
        call.OnProgress([this](Step) { Act(); });
        Count(call);
        break;
      }
      case Moment::kHandler:
        service.On(kNext, [this] {
          Act();
          return 2;
        });
        Count(caller.Call(kNext));
        break;
      case Moment::kHandlerThatKeeps:
        service.On(kPing, [this](const Request<void>& request) {
          all_->requests.push_back(request);
          Act();
        });
        Count(caller.Call(kPing));
        break;
      case Moment::kOnCancel:
        service.On(kPing, [this](const Request<void>& request) {
          all_->requests.push_back(request);
          request.OnCancel([this] { Act(); });
        });
        all_->calls.push_back(caller.Call(kPing));
        Count(all_->calls.back());
        all_->link.loop->Post([this] { CancelOnceSent(); });
        break;
      case Moment::kWorker:
        service.On(kNext, *all_->workers, [this] {
          Act();
          return 3;
        });
        Count(caller.Call(kNext));
        break;
      case Moment::kPosted:
        all_->link.loop->Post(act);
        break;
      case Moment::kWoken:
        all_->link.loop->WakeAt(all_->link.loop->Now() + 5ms, act);
        break;
    }
  }
  void CancelOnceSent() {
    if (all_->requests.empty()) {
      all_->link.loop->Post([this] { CancelOnceSent(); });
    } else {
      all_->calls.back().Cancel();
    }
  }

  static void RunEvents(const std::function<bool()>& condition) {
    while (!condition()) {
      QCoreApplication::processEvents(QEventLoop::WaitForMoreEvents, 20);
    }
  }

  QCoreApplication application_{argument_count, arguments};
  const std::shared_ptr<Counts> counts_ = std::make_shared<Counts>();
  std::unique_ptr<Everything> all_ = std::make_unique<Everything>();
  std::atomic<bool> acted_{false};
};

TEST_P(Lifetimes, MayEndInside) {
  for (int i = 0; i < 3; ++i) {
    Count(all_->caller->Call(kPing));  // bystanders
  }
  Prepare(std::get<Moment>(GetParam()));
  RunEvents([this] { return acted_.load(); });
  // What is left lives on: a further call ends, too.
  if (all_ && all_->caller) {
    Count(all_->caller->Call(kNext, CallOptions().Timeout(200ms)));
    const int before = counts_->ended;
    RunEvents([this, before] { return counts_->ended > before; });
  }
  const bool loop_is_gone = all_ == nullptr;
  all_.reset();
  QCoreApplication::processEvents();
  QCoreApplication::sendPostedEvents(nullptr, QEvent::DeferredDelete);
  // A call whose loop is gone in the middle of a function of its own may be cut short, no other.
  EXPECT_LE(counts_->most_of_one, 1);
  EXPECT_EQ(counts_->ended, counts_->begun) << (loop_is_gone ? "the loop is gone" : "");
}

// What may be destroyed on a worker's thread: the workers themselves, requests, handles of calls.
std::vector<Case> AllCases() {
  std::vector<Case> cases;
  for (int thing = 0; thing <= static_cast<int>(Thing::kEverything); ++thing) {
    for (int moment = 0; moment <= static_cast<int>(Moment::kWoken); ++moment) {
      const Case both{static_cast<Thing>(thing), static_cast<Moment>(moment)};
      const bool on_any_thread = std::get<Thing>(both) == Thing::kWorkers;
      if (std::get<Moment>(both) != Moment::kWorker || on_any_thread) {
        cases.push_back(both);
      }
    }
  }
  return cases;
}

INSTANTIATE_TEST_SUITE_P(Each, Lifetimes, testing::ValuesIn(AllCases()), [](const auto& test) {
  return std::string(kThings[static_cast<int>(std::get<Thing>(test.param))]) + "Inside" +
         kMoments[static_cast<int>(std::get<Moment>(test.param))];
});

// Nobody else has the loop, which has to let the client go once the task has started.
TEST(ALoop, LivesUntilATaskThatIsStartingHasConnected) {
  const QCoreApplication application(argument_count, arguments);
  tarv::test::LinkOn<tarv::Loop> link(tarv::Loop::OfThisThread());
  auto caller = std::make_unique<tarv::Caller>(std::move(link.client), link.loop);
  caller.reset();
  const std::weak_ptr<tarv::Loop> loop = std::exchange(link.loop, nullptr);
  EXPECT_FALSE(loop.expired());
  EXPECT_FALSE(link.weak_client.expired()) << "the task would run on";
  link.server->Run();
  while (!loop.expired() || !link.weak_client.expired()) {
    QCoreApplication::processEvents(QEventLoop::WaitForMoreEvents, 20);
  }
}

}  // namespace
