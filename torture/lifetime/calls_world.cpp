#include "calls_world.h"

#include <utility>

namespace tarv::torture {

using counting::kCount;
using counting::kPing;
using counting::kSay;
using namespace std::chrono_literals;

namespace {

const vorpc::Message::Error kHungUp(-32003, "hung up");

// Where a consumer is, by what it gets.
template <class Result>
const char* PlaceOf(const Outcome<Result>& outcome) {
  if (outcome.HasValue()) {
    return "a value";
  }
  switch (outcome.GetError().GetReason()) {
    case CallReason::kTimedOut:
      return "a call that timed out";
    case CallReason::kCancelled:
      return "a cancelled call";
    case CallReason::kReleased:
      return "a released call";
    case CallReason::kAnswered:
      return "an error";
    default:
      return "a lost call";
  }
}

}  // namespace

CallsTalk& CallsWorld::NewTalk() {
  CallsTalk& talk = *talks_.emplace_back(std::make_unique<CallsTalk>(loop_));
  Serve(talk);
  return talk;
}

void CallsWorld::Serve(CallsTalk& talk) {
  talk.service = Service::For(talk.link.server, loop_);
  talk.service->On(kPing, [this, held = Hold("the end of a handler")] { Hear("a handler"); });
  talk.service->On(kCount, [this, held = Hold("the end of a handler")](const counting::Texts&,
                                                                       const Count& request) {
    requests_.push_back(request);
    request.OnCancel([this, held_by_cancel = Hold("the end of OnCancel")] { Hear("OnCancel"); });
    Hear("a handler that answers later");
  });
  talk.service->Run();
}

void CallsWorld::Keep() {
  KeepPolicy policy;
  policy.first_pause = 1ms;
  policy.restart = Restart::kAtOnce;
  // Both go with the members of the task, which nobody may use any more then.
  const auto last = [this] {
    return std::shared_ptr<void>(nullptr, [this](void*) { kept_.Forget(); });
  };
  auto make = [this, held = Hold("the end of the factory"), last = last()] {
    constexpr std::size_t kMost = 6;
    const auto client = talks_.size() < kMost ? NewTalk().link.client : nullptr;
    Hear("the factory");
    return client;
  };
  kept_.Put(std::make_unique<KeptTask>(std::move(make), "kept", policy, loop_));
  kept_.Get()->OnChange([this, held = Hold("the end of the watcher"),
                         last = last()](const TaskStatus& /*status*/) { Hear("the watcher"); });
}

template <class Result, class Progress>
void CallsWorld::Consume(const Call<Result, Progress>& call, const void* of) {
  const auto called = called_.emplace_back(std::make_shared<Called>(Called{of}));
  call.Then([this, called, held = Hold("the end of a consumer")](const Outcome<Result>& outcome) {
    if (++called->ends > 1) {
      Fault("a call ends twice");
    }
    Hear(PlaceOf(outcome));
  });
}

// One that is answered, one that is not known, one that takes its time, one that may not. No callback
// runs inside a call.
template <class Target>
void CallsWorld::CallAll(const UntilItsEnd<Target>& of) {
  Target* const target = of.Get();
  if (target == nullptr) {
    return;
  }
  Consume(target->Call(kPing), target);
  Consume(target->Call(kSay, "nobody knows this"), target);
  const auto slow = target->Call(kCount, {});
  slow.OnProgress([this, held = Hold("the end of a progress handler")](counting::Step /*step*/) {
    Hear("a step");
  });
  Consume(slow, target);
  handles_.push_back(slow);
  Consume(target->Call(kCount, {}, CallOptions().Timeout(10ms)), target);
}

std::vector<Life::Move> CallsWorld::GetSteps() {
  CallsTalk& talk = NewTalk();
  talk.caller.Put(
      std::make_unique<Caller>(talk.link.client, loop_, CallerOptions().TaskName("own")));
  Keep();
  return {[&] { CallAll(talk.caller); }, [&] { ArriveEverywhere(); }, [&] { AnswerAll(); },
          [&] { CallAll(talk.caller); }, [&] { LetTimePass(); },      [&] { CancelAll(); },
          [&] { CallAll(kept_); },       [&] { ArriveEverywhere(); }, [&] { AnswerAll(); },
          [&] { CallAll(kept_); },       [&] { HangUp(); },           [&] { LetTimePass(); },
          [&] { BeginAnew(); },          [&] { UseEverything(); },    [&] { ArriveEverywhere(); }};
}

void CallsWorld::Turn(const Move& move) {
  Survive(move);
  Survive([this] { loop_->Pump(); });
}

void CallsWorld::UseEverything() {
  for (std::size_t i = 0; i < talks_.size(); ++i) {
    CallAll(talks_[i]->caller);
    if (const auto service = talks_[i]->service) {
      service->GetDescription();
      service->GetMetrics();
    }
  }
  CallAll(kept_);
}

void CallsWorld::ArriveEverywhere() {
  for (std::size_t i = 0; i < requests_.size(); ++i) {
    const Count request = requests_[i];
    Survive([&request] { request.Progress({1, 2}); });
  }
  loop_->Pump();
}

void CallsWorld::DropCallers() {
  for (std::size_t i = 0; i < talks_.size(); ++i) {
    Drop(talks_[i]->caller);
  }
}

void CallsWorld::DropKeptTask() { Drop(kept_); }

// Its calls have ended when its end returns, also those that callbacks have begun meanwhile.
template <class Target>
void CallsWorld::Drop(UntilItsEnd<Target>& of) {
  const void* const target = of.Get();
  if (!of.Drop()) {
    return;
  }
  for (const auto& called : called_) {
    if (called->of == target && called->ends == 0) {
      Fault("a call goes on after the end of what it was made with");
    }
  }
}

void CallsWorld::DropServices() {
  for (std::size_t i = 0; i < talks_.size(); ++i) {
    const auto service = std::exchange(talks_[i]->service, nullptr);
  }
}

void CallsWorld::DropRequests() { const auto requests = std::exchange(requests_, {}); }

void CallsWorld::DropConnections() {
  for (std::size_t i = 0; i < talks_.size(); ++i) {
    const auto client = std::exchange(talks_[i]->link.client, nullptr);
    const auto server = std::exchange(talks_[i]->link.server, nullptr);
  }
}

void CallsWorld::HangUp() {
  for (std::size_t i = 0; i < talks_.size(); ++i) {
    if (const auto client = talks_[i]->link.weak_client.lock()) {
      Survive([&client] { client->Disconnect(kHungUp); });
    }
  }
}

void CallsWorld::CancelAll() {
  for (const auto& call : std::exchange(handles_, {})) {
    call.Cancel();
  }
}

// Each is answered twice, as it must not be.
void CallsWorld::AnswerAll() {
  for (const Count& request : std::exchange(requests_, {})) {
    request.Answer({});
    request.Answer({});
  }
}

void CallsWorld::LetTimePass() { loop_->Advance(20ms); }

void CallsWorld::BeginAnew() {
  constexpr std::size_t kMost = 6;
  if (talks_.size() < kMost) {
    CallsTalk& talk = NewTalk();
    talk.caller.Put(std::make_unique<Caller>(talk.link.client, loop_));
    CallAll(talk.caller);
  }
}

void CallsWorld::EndEverything() {
  Turn([this] { DropRequests(); });
  Turn([this] { DropKeptTask(); });
  Turn([this] { DropCallers(); });
  for (const auto& called : called_) {
    if (called->ends != 1) {
      Fault("a call has ended " + std::to_string(called->ends) + " times");
    }
  }
  Turn([this] { DropServices(); });
  Turn([this] { DropConnections(); });
  handles_.clear();
  talks_.clear();
  loop_->Advance(1h);
  ExpectNothingHeld();
}

const std::vector<Place> CallsWorld::kPlaces = {
    {"a value"},
    {"an error"},
    {"a call that timed out"},
    {"a cancelled call"},
    {"a released call"},
    {"a lost call"},
    {"a step"},
    {"a handler"},
    {"a handler that answers later"},
    {"OnCancel"},
    {"the factory"},
    {"the watcher"},
    {"the end of a consumer", false},
    {"the end of a progress handler", false},
    {"the end of a handler", false},
    {"the end of OnCancel", false},
    {"the end of the factory", false},
    {"the end of the watcher", false},
};

const std::vector<Deed<CallsWorld>> CallsWorld::kDeeds = {
    {"drop the callers", [](CallsWorld& world) { world.DropCallers(); }},
    {"drop the services", [](CallsWorld& world) { world.DropServices(); }},
    {"drop the kept task", [](CallsWorld& world) { world.DropKeptTask(); }},
    {"drop the requests", [](CallsWorld& world) { world.DropRequests(); }},
    {"drop the connections", [](CallsWorld& world) { world.DropConnections(); }},
    {"drop all",
     [](CallsWorld& world) {
       world.DropConnections();
       world.DropServices();
       world.DropCallers();
       world.DropKeptTask();
       world.DropRequests();
     }},
    {"hang up", [](CallsWorld& world) { world.HangUp(); }},
    {"hang up and drop the callers",
     [](CallsWorld& world) {
       world.HangUp();
       world.DropCallers();
     }},
    {"hang up and drop the kept task",
     [](CallsWorld& world) {
       world.HangUp();
       world.DropKeptTask();
     }},
    {"cancel all", [](CallsWorld& world) { world.CancelAll(); }},
    {"answer all", [](CallsWorld& world) { world.AnswerAll(); }},
    {"let time pass", [](CallsWorld& world) { world.LetTimePass(); }},
    {"use everything", [](CallsWorld& world) { world.UseEverything(); }},
    {"let more arrive", [](CallsWorld& world) { world.ArriveEverywhere(); }},
    {"drop the callers and let more arrive",
     [](CallsWorld& world) {
       world.DropCallers();
       world.ArriveEverywhere();
     }},
    {"drop the services and let more arrive",
     [](CallsWorld& world) {
       world.DropServices();
       world.ArriveEverywhere();
     }},
    {"begin anew", [](CallsWorld& world) { world.BeginAnew(); }},
    {"throw", &Throw<CallsWorld>, true},
};

const std::vector<Deed<CallsWorld>> CallsWorld::kEnds = {
    {"callers", [](CallsWorld& world) { world.DropCallers(); }},
    {"kept task", [](CallsWorld& world) { world.DropKeptTask(); }},
    {"services", [](CallsWorld& world) { world.DropServices(); }},
    {"connections", [](CallsWorld& world) { world.HangUp(); }},
};

}  // namespace tarv::torture
