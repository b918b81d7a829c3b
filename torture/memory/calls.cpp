// The layer of calls, both ends in one process.
#include <tarv/calls/workers.h>

#include <atomic>
#include <future>
#include <thread>
#include <utility>

#include "call_scenario.h"

namespace tarv::torture {
namespace {

using namespace std::chrono_literals;

// Both ends made, a method replaced, a description, and the end of all.
class ServiceMade final : public CallScenario {
 public:
  using CallScenario::CallScenario;

  void Begin() override { wire_ = std::make_unique<Wire>(); }

  void Act() override {
    MakeService();
    Try([this] {
      if (service_ != nullptr) {
        service_->On(kEcho, [](std::string text) { return text; });
        service_->GetDescription();
        service_->GetMetrics();
      }
    });
    MakeCaller();
    AskForMore();
    Settle();
    Release();
  }

  // What has failed can be tried again, with another client.
  std::string Recover() override {
    Settle();
    Release();
    wire_ = std::make_unique<Wire>();
    MakeService();
    MakeCaller();
    return CallScenario::Recover();
  }

 private:
  void AskForMore() {
    if (caller_ != nullptr) {
      Echo();
      Call(End::kValue, [](Caller& caller) { return caller.Call(kDescribe); });
      Call(End::kValue, [](Caller& caller) { return caller.Call(kMetrics); });
    }
  }
};

// Calls that are answered, that fail, that nobody answers, and that cannot be sent.
class Calls final : public CallScenario {
 public:
  using CallScenario::CallScenario;

  void Act() override {
    Echo();
    Call(End::kError, [](Caller& caller) { return caller.Call(kFail); });
    Settle();
    Call(End::kError, [](Caller& caller) { return caller.Call(kUnknown); });
    Call(End::kError, [](Caller& caller) { return caller.Call(kHuge, ~0ULL); });
    Echo();
    Settle();
  }

 private:
  static constexpr Method<void(unsigned long long)> kHuge{"a number that no message holds"};
};

// Steps of a call, and notifications each way.
class Steps final : public CallScenario {
 public:
  using CallScenario::CallScenario;

  void Begin() override {
    CallScenario::Begin();
    wire_->client->OnNotify("said", [](const vorpc::Message::Notification& /*said*/) {});
    wire_->server->OnNotify("say", [this](const vorpc::Message::Notification& said) {
      wire_->server->SendNotify("said", said.params);
    });
  }

  void Act() override {
    const auto call = Call(End::kValue, [](Caller& caller) { return caller.Call(kStep); });
    if (call != nullptr) {
      Try([&call] { call->OnProgress([](const std::string& /*step*/) {}); });
    }
    Try([this] { wire_->client->SendNotify("say", kLongText); });
    Settle();
  }
};

// A call that is cancelled, one whose time is over, one that hears of it, and one that is consumed
// when it has ended.
class EndsOfCalls final : public CallScenario {
 public:
  using CallScenario::CallScenario;

  void Act() override {
    const auto cancelled = Keep(CallOptions());
    Keep(CallOptions().Timeout(20ms));
    Keep(CallOptions().Timeout(0ms));
    WaitForKept();
    if (!kept_.empty()) {
      Try([this] { kept_.front().OnCancel([] {}); });
    }
    if (cancelled != nullptr) {
      Try([&cancelled] { cancelled->Cancel(); });
      cancelled_ = cancelled;
    }
    Settle();
  }

  // What could not be cancelled can be.
  std::string Recover() override {
    if (cancelled_ != nullptr) {
      cancelled_->Cancel();
    }
    return CallScenario::Recover();
  }

 private:
  std::shared_ptr<tarv::Call<void>> Keep(const CallOptions& options) {
    return Call(End::kError, [&options](Caller& caller) { return caller.Call(kKeep, options); });
  }

  std::shared_ptr<tarv::Call<void>> cancelled_;
};

// Requests that are answered later: with a value, with an error, twice, and by being dropped.
class LateAnswers final : public CallScenario {
 public:
  using CallScenario::CallScenario;

  void Act() override {
    const auto expected = {End::kValue, End::kError, End::kError};
    for (const End end : expected) {
      Call(end, [](Caller& caller) { return caller.Call(kKeep); });
    }
    WaitForKept();
    Answer();
    Settle();
  }

  std::string Recover() override {
    Answer();
    return CallScenario::Recover();
  }

 private:
  // What memory runs out for stays open, and is answered the next time.
  void Answer() {
    Take([](const Request<void>& request) { request.Answer(); });
    Take([](const Request<void>& request) { request.Fail(7, kLongText); });
    while (!kept_.empty()) {
      kept_.pop_front();
    }
  }
  template <class Act>
  void Take(const Act& act) {
    if (!kept_.empty()) {
      Try([&] { act(kept_.front()); });
      const OwnMemory own;
      kept_.pop_front();
    }
  }
};

// A service that answers from a thread, where memory fails.
class AnswerOfAThread final : public CallScenario {
 public:
  using CallScenario::CallScenario;

  void Begin() override {
    CallScenario::Begin();
    service_->On(kWork, workers_,
                 [this](const std::string& text, const Running<std::string>& running) {
                   PutWant(want_);
                   running.Progress(text);
                   return text;
                 });
  }

  void Act() override {
    want_ = TakeWant();
    Call(End::kValue, [](Caller& caller) { return caller.Call(kWork, kLongText); });
    RunUntil([this] { return wire_->has_ended || IsSettled(); });
    std::promise<void> taken;
    workers_.Post([this, &taken] {
      want_ = TakeWant();
      taken.set_value();
    });
    taken.get_future().wait();
    PutWant(want_);
  }

 private:
  static constexpr Method<std::string(std::string), std::string> kWork{"work on a thread"};

  Want want_;  // the worker's, while it has a job
  Workers workers_{1};
};

// Calls from another thread than the loop's, which waits for their ends.
class CallOfAThread final : public CallScenario {
 public:
  using CallScenario::CallScenario;

  void Act() override {
    Want want = TakeWant();
    const auto debt = Owe();
    std::thread thread([this, &want, &debt] {
      PutWant(want);
      Try(debt, [this, &debt] {
        const auto outcome = caller_->Call(kEcho, kLongText).Wait();
        debt->Pay();
        if (!outcome) {
          CountError();
        }
      });
      want = TakeWant();
      has_ended_ = true;
    });
    SetLimit(kPatience);
    RunUntil([this] { return has_ended_.load(); });
    thread.join();
    PutWant(want);
  }

 private:
  std::atomic<bool> has_ended_{false};
};

// The Caller goes while its calls are open, then the service while it keeps requests.
class PendingCalls final : public CallScenario {
 public:
  using CallScenario::CallScenario;

  void Act() override {
    Keep();
    Keep();
    WaitForKept();
    Keep();
    Try([this] { caller_.reset(); });
    Try([this] { service_.reset(); });
    Try([this] {
      while (!kept_.empty()) {
        kept_.pop_back();
      }
    });
    if (!IsSettled()) {
      CountError();
    }
  }

 private:
  void Keep() {
    Call(End::kError, [](Caller& caller) { return caller.Call(kKeep); });
  }
};

}  // namespace

std::unique_ptr<Scenario> MakeServiceMade(Loop& loop) {
  return std::make_unique<ServiceMade>(loop);
}
std::unique_ptr<Scenario> MakeCalls(Loop& loop) { return std::make_unique<Calls>(loop); }
std::unique_ptr<Scenario> MakeSteps(Loop& loop) { return std::make_unique<Steps>(loop); }
std::unique_ptr<Scenario> MakeEndsOfCalls(Loop& loop) {
  return std::make_unique<EndsOfCalls>(loop);
}
std::unique_ptr<Scenario> MakeLateAnswers(Loop& loop) {
  return std::make_unique<LateAnswers>(loop);
}
std::unique_ptr<Scenario> MakeAnswerOfAThread(Loop& loop) {
  return std::make_unique<AnswerOfAThread>(loop);
}
std::unique_ptr<Scenario> MakeCallOfAThread(Loop& loop) {
  return std::make_unique<CallOfAThread>(loop);
}
std::unique_ptr<Scenario> MakePendingCalls(Loop& loop) {
  return std::make_unique<PendingCalls>(loop);
}

}  // namespace tarv::torture
