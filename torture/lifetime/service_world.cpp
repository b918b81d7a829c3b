#include "service_world.h"

#include <RuntimeManager/RuntimeDispatcher.h>

#include <QEventLoop>
#include <QTimer>
#include <array>
#include <exception>
#include <utility>

namespace tarv::torture {

using RuntimeManager::RuntimeDispatcher;
using RuntimeManager::Task;
using RuntimeManager::TaskMessaging;

namespace {

// An action that leads to its own callback ends there; so does a life that it makes larger and larger.
constexpr int kDeepest = 4;
constexpr int kMostActions = 8;

}  // namespace

void Survive(const std::function<void()>& step) {
  try {
    step();
  } catch (const std::exception&) {
  }
}

const char* NameOf(Callback callback) {
  constexpr std::array kNames = {"client started",
                                 "client not started",
                                 "client message",
                                 "client disconnect",
                                 "client release",
                                 "server started",
                                 "server message",
                                 "server release",
                                 "uri",
                                 "uri release",
                                 "intent"};
  return kNames.at(static_cast<std::size_t>(callback));
}

ServiceWorld::ServiceWorld() {
  Task::GetAll().clear();
  TaskMessaging::GetAll().clear();
  RuntimeDispatcher::instance()->handlers.clear();
  TARVProcTableLoad(&root, sizeof(root));
  root.RpcClientProcTableLoad(&table, sizeof(table));
  root.RpcServerProcTableLoad(&server_table, sizeof(server_table));
  root.IntentManagerProcTableLoad(&intent_table, sizeof(intent_table));
  manager = root.Initialize();
}

ServiceWorld::~ServiceWorld() {
  ReleaseManager();
  RuntimeDispatcher::instance()->handlers.clear();
}

void ServiceWorld::Plan(Callback callback, std::function<void()> action, bool always) {
  planned_ = callback;
  action_ = std::move(action);
  always_ = always;
}

void ServiceWorld::Live(const std::vector<std::function<void()>>& ends) {
  for (const auto& step : StepsOfALife()) {
    RunInLoop(step);
  }
  for (const auto& end : ends) {
    RunInLoop(end);
    RunInLoop([&] { UseEverything(); });
    RunInLoop([&] { ArriveEverywhere(); });
  }
  RunInLoop([&] { CompleteStops(); });
  RunInLoop([&] { AnswerIntents(); });
  RunInLoop([&] { ReleaseManager(); });
  // What an action made inside the manager's Release stays: one more ends it.
  action_ = nullptr;
  RunInLoop([&] { ReleaseManager(); });
  CheckEnd();
}

std::vector<std::function<void()>> ServiceWorld::StepsOfALife() {
  OneClient& first = NewClient();
  OneClient& second = NewClient();
  NewClient();  // stays idle
  return {[&] { Start(first); },
          [&] { Start(second); },
          [&] { CompleteStart(first, true); },
          [&] { Send(first, "one"); },
          [&] { CompleteStart(second, false); },
          [&] { RunServer(); },
          [&] { SendToServer("two"); },
          [&] {
            OpenUri();
            OpenUri();
          },
          [&] { AnswerUri(); },
          [&] { RegisterIntent(); },
          [&] { InvokeIntent(); },
          [&] { AnswerIntents(); },
          [&] { ArriveEverywhere(); }};
}

// One turn of an event loop, as the platform's. What is deleted later is gone after it.
void ServiceWorld::RunInLoop(const std::function<void()>& step) {
  QEventLoop loop;
  QTimer::singleShot(0, &loop, [&] {
    Survive(step);
    loop.quit();
  });
  loop.exec();
  QCoreApplication::sendPostedEvents(nullptr, QEvent::DeferredDelete);
}

void ServiceWorld::CheckEnd() {
  for (const auto& slots : slots_) {
    const int expected = slots->is_taken && !slots->ends_with_process ? 1 : 0;
    if (slots->released != expected) {
      Fault(*slots, "released " + std::to_string(slots->released) + " times");
    }
  }
  for (const auto& channel : TaskMessaging::GetAll()) {
    if (channel != nullptr) {
      faults_.push_back("a channel is left");
    }
  }
  for (const auto& client : clients) {
    if (client->task != nullptr) {
      faults_.push_back("a task is left");
    }
  }
}

void ServiceWorld::Fault(const Slots& slots, const std::string& what) {
  faults_.push_back(slots.name + ": " + what);
}

Slots& ServiceWorld::NewSlots(const std::string& name) {
  Slots& slots = *slots_.emplace_back(std::make_unique<Slots>());
  slots.name = name + ' ' + std::to_string(slots_.size());
  slots.world = this;
  return slots;
}

void ServiceWorld::Hear(Slots& slots, Callback callback) {
  if (slots.released > 0) {
    Fault(slots, std::string("a callback after Release: ") + NameOf(callback));
  }
  const bool is_release = callback == Callback::kClientRelease ||
                          callback == Callback::kServerRelease || callback == Callback::kUriRelease;
  slots.released += is_release ? 1 : 0;
  if (!action_ || planned_ != callback || actions_ >= (always_ ? kMostActions : 1) ||
      depth_ == kDeepest) {
    return;
  }
  ++actions_;
  struct Deeper {
    int& depth;
    explicit Deeper(int& of) : depth(of) { ++depth; }
    ~Deeper() { --depth; }
  } const deeper(depth_);
  const auto action = action_;
  action();
}

// The text is whole as long as the callback runs, whatever the action ends.
void ServiceWorld::HearText(Slots& slots, Callback callback, const char* text,
                            const std::function<void()>& unlock) {
  const std::string copy = text;
  Hear(slots, callback);
  if (copy != text) {
    Fault(slots, "its text has changed while its callback ran");
  }
  unlock();
}

}  // namespace tarv::torture
