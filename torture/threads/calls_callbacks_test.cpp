// Every callback of the layer of calls throws, or sleeps: nobody but the log hears of it, or the call
// that it belongs to; the next call is served.
#include <gmock/gmock.h>
#include <tarv/calls/kept_task.h>

#include <atomic>
#include <map>
#include <optional>
#include <tuple>
#include <utility>

#include "calls/tests/fixture.h"
#include "deed.h"

namespace tarv::test {
namespace {

using counting::kCount;
using counting::kNext;
using counting::kPing;
using counting::kSay;
using counting::Step;
using counting::Texts;
using counting::Totals;

enum class Place {
  kConsumerOfAValue,
  kConsumerOfAnError,
  kProgress,
  kHandler,
  kHandlerThatAnswers,
  kWorker,
  kOnCancel,
  kWatcher,
  kFactory,
};
constexpr const char* kPlaces[] = {"AConsumerOfAValue", "AConsumerOfAnError",  "AProgressHandler",
                                   "AHandler",          "AHandlerThatAnswers", "AWorkersHandler",
                                   "AnOnCancel",        "AKeptTasksWatcher",   "AKeptTasksFactory"};

using Case = std::tuple<Place, Deed>;

class CallsCallbackThat : public CallsTest, public testing::WithParamInterface<Case> {
 protected:
  static Place GetPlace() { return std::get<Place>(GetParam()); }
  static bool Throws() { return std::get<Deed>(GetParam()) == Deed::kThrows; }

  // The first time that the place comes.
  void Happen() {
    if (!done_.exchange(true)) {
      Do(std::get<Deed>(GetParam()));
    }
  }

  void Play() {
    static const std::map<Place, void (CallsCallbackThat::*)()> kPlays = {
        {Place::kConsumerOfAValue, &CallsCallbackThat::ConsumeAValue},
        {Place::kConsumerOfAnError, &CallsCallbackThat::ConsumeAnError},
        {Place::kProgress, &CallsCallbackThat::HearProgress},
        {Place::kHandler, &CallsCallbackThat::Handle},
        {Place::kHandlerThatAnswers, &CallsCallbackThat::AnswerFirst},
        {Place::kWorker, &CallsCallbackThat::Work},
        {Place::kOnCancel, &CallsCallbackThat::BeCancelled},
        {Place::kWatcher, &CallsCallbackThat::Watch},
        {Place::kFactory, &CallsCallbackThat::Make},
    };
    (this->*kPlays.at(GetPlace()))();
    PumpUntil([this] { return done_.load(); });
    link_.Pump();
  }

  void ConsumeAValue() {
    service_->On(kPing, [] {});
    caller_->Call(kPing).Then([this](const Outcome<void>&) { Happen(); });
  }
  void ConsumeAnError() {
    caller_->Call(kSay, "nobody answers this").Then([this](const Outcome<void>&) { Happen(); });
  }
  void HearProgress() {
    service_->On(kCount, [](const Texts&, const Request<Totals, Step>& request) {
      request.Progress({1, 2});
      request.Progress({2, 2});
      request.Answer({});
    });
    const auto call = caller_->Call(kCount, {});
    call.OnProgress([this](Step) { Happen(); });
    const Ending<Totals> ending(call);
    PumpUntilEnd(ending);
    EXPECT_TRUE(ending.Get().HasValue());
  }
  void Handle() {
    service_->On(kPing, [this] { Happen(); });
    ExpectAnswered();
  }
  void AnswerFirst() {
    service_->On(kPing, [this](const Request<void>& request) {
      request.Answer();
      Happen();
    });
    const Ending<void> ending(caller_->Call(kPing));
    PumpUntilEnd(ending);
    EXPECT_TRUE(ending.Get().HasValue());
  }
  void Work() {
    service_->On(kPing, workers_, [this] { Happen(); });
    ExpectAnswered();
  }
  void BeCancelled() {
    service_->On(kPing, [this](const Request<void>& request) {
      open_.push_back(request);
      request.OnCancel([this] { Happen(); });
    });
    const auto call = caller_->Call(kPing);
    PumpUntil([this] { return !open_.empty(); });
    call.Cancel();
  }
  void Watch() {
    Keep([this] { return link_.client; });
    kept_->OnChange([this](const TaskStatus&) { Happen(); });
    service_->On(kPing, [] {});
    kept_->Call(kPing);
  }
  void Make() {
    Keep([this] {
      Happen();
      return link_.client;
    });
    service_->On(kPing, [] {});
    kept_->Call(kPing);
  }
  void Keep(KeptTask::Factory factory) {
    kept_.emplace(std::move(factory), "words", KeepPolicy(), link_.loop);
  }

  void ExpectAnswered() {
    const Ending<void> ending(caller_->Call(kPing));
    PumpUntilEnd(ending);
    ASSERT_EQ(ending.Get().HasValue(), !Throws());
    if (Throws()) {
      EXPECT_THAT(ending.GetText(), testing::HasSubstr(kThrown));
    }
  }

  std::atomic<bool> done_{false};
  Workers workers_{1};
  std::optional<KeptTask> kept_;
};

INSTANTIATE_TEST_SUITE_P(
    Each, CallsCallbackThat,
    testing::Combine(testing::Values(Place::kConsumerOfAValue, Place::kConsumerOfAnError,
                                     Place::kProgress, Place::kHandler, Place::kHandlerThatAnswers,
                                     Place::kWorker, Place::kOnCancel, Place::kWatcher,
                                     Place::kFactory),
                     testing::Values(Deed::kThrows, Deed::kSleeps)),
    [](const auto& test) {
      return NameOf(kPlaces[static_cast<int>(std::get<Place>(test.param))],
                    std::get<Deed>(test.param));
    });

TEST_P(CallsCallbackThat, LetsTheNextCallBeServed) {
  Play();
  service_->On(kNext, [] { return 7; });
  const Ending<std::int32_t> next(kept_ ? kept_->Call(kNext) : caller_->Call(kNext));
  // What a factory has failed to start is a death, after which there is a pause.
  PumpUntil([&] {
    constexpr auto kTurn = std::chrono::milliseconds(10);
    link_.loop->Advance(kTurn);
    return next.Count() > 0;
  });
  ASSERT_TRUE(next.Get().HasValue()) << next.GetText();
  EXPECT_EQ(*next.Get(), 7);
}

}  // namespace
}  // namespace tarv::test
