#include "service_world.h"

#include <RuntimeManager/RuntimeDispatcher.h>

#include <utility>

namespace tarv::torture {

using RuntimeManager::RuntimeDispatcher;
using RuntimeManager::Task;
using RuntimeManager::TaskMessaging;

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

std::vector<Life::Move> ServiceWorld::GetSteps() {
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

// What is made inside the manager's Release stays: one more ends it.
void ServiceWorld::EndEverything() {
  Turn([this] { CompleteStops(); });
  Turn([this] { AnswerIntents(); });
  Turn([this] { ReleaseManager(); });
  Turn([this] { ReleaseManager(); });
  for (const auto& slots : slots_) {
    const int expected = slots->is_taken && !slots->ends_with_process ? 1 : 0;
    if (slots->released != expected) {
      FaultOf(*slots, "released " + std::to_string(slots->released) + " times");
    }
  }
  for (const auto& channel : TaskMessaging::GetAll()) {
    if (channel != nullptr) {
      Fault("a channel is left");
    }
  }
  for (const auto& client : clients) {
    if (client->task != nullptr) {
      Fault("a task is left");
    }
  }
}

Slots& ServiceWorld::NewSlots(const std::string& name) {
  Slots& slots = *slots_.emplace_back(std::make_unique<Slots>());
  slots.name = name + ' ' + std::to_string(slots_.size());
  slots.world = this;
  return slots;
}

void ServiceWorld::HearOf(Slots& slots, const char* place) {
  if (slots.released > 0) {
    FaultOf(slots, std::string("a callback after Release: ") + place);
  }
  const bool is_release = place == place::kClientRelease || place == place::kServerRelease ||
                          place == place::kUriRelease;
  slots.released += is_release ? 1 : 0;
  Hear(place);
}

// The text is whole as long as the callback runs, whatever the action ends.
void ServiceWorld::HearText(Slots& slots, const char* place, const char* text,
                            const std::function<void()>& unlock) {
  const std::string copy = text;
  HearOf(slots, place);
  if (copy != text) {
    FaultOf(slots, "its text has changed while its callback ran");
  }
  unlock();
}

}  // namespace tarv::torture
