// The moves of a life: what a caller of the C interface and the platform do.

#include <RuntimeManager/IntentsInvoker.h>
#include <RuntimeManager/RuntimeDispatcher.h>

#include <utility>

#include "service_world.h"

namespace tarv::torture {

using RuntimeManager::Error;
using RuntimeManager::IntentsInvoker;
using RuntimeManager::RuntimeDispatcher;
using RuntimeManager::Task;
using RuntimeManager::TaskMessaging;

namespace {

QJsonObject Envelope(const char* text) { return {{"data", text}}; }

}  // namespace

// The C callbacks: each finds its slots by the user data.
struct Hearing {
  static Slots& Of(void* user_data) { return *static_cast<Slots*>(user_data); }

  static void OnClientStarted(void* data, int code, const char* text, std::size_t chunk) {
    Slots& slots = Of(data);
    if (++slots.started > 1 || slots.disconnected > 0) {
      slots.world->FaultOf(slots, "started twice, or after its end");
    }
    OneClient* const client = Find(slots);
    slots.world->HearText(slots, code == 0 ? place::kClientStarted : place::kClientNotStarted, text,
                          Unlock(client, chunk));
  }
  static void OnClientDisconnect(void* data, int, const char* text, std::size_t chunk) {
    Slots& slots = Of(data);
    if (++slots.disconnected > 1) {
      slots.world->FaultOf(slots, "disconnected twice");
    }
    slots.world->HearText(slots, place::kClientDisconnect, text, Unlock(Find(slots), chunk));
  }
  static void OnClientMessage(void* data, const char* text, std::size_t chunk) {
    Slots& slots = Of(data);
    if (slots.disconnected > 0) {
      slots.world->FaultOf(slots, "a message after OnDisconnect");
    }
    slots.world->HearText(slots, place::kClientMessage, text, Unlock(Find(slots), chunk));
  }
  static void OnServerStarted(void* data, int, const char*, std::size_t) {
    if (++Of(data).started > 1) {
      Of(data).world->FaultOf(Of(data), "started twice");
    }
    Of(data).world->HearOf(Of(data), place::kServerStarted);
  }
  static void OnServerMessage(void* data, const char* text, std::size_t chunk) {
    ServiceWorld* const world = Of(data).world;
    world->HearText(Of(data), place::kServerMessage, text,
                    [world, chunk] { world->server_table.UnlockResources(world->server, chunk); });
  }
  static void OnUri(void* data, bool) {
    if (++Of(data).answered > 1) {
      Of(data).world->FaultOf(Of(data), "answered twice");
    }
    Of(data).world->HearOf(Of(data), place::kUri);
  }
  static void OnIntent(void* data, TARVReplyIntentSlot* reply) {
    Of(data).world->replies_.push_back(*reply);
    Of(data).world->HearOf(Of(data), place::kIntent);
  }
  template <const char* kPlace>
  static void OnRelease(void* data) {
    Of(data).world->HearOf(Of(data), kPlace);
  }

 private:
  static OneClient* Find(const Slots& slots) {
    for (const auto& client : slots.world->clients) {
      if (client->slots == &slots) {
        return client.get();
      }
    }
    return nullptr;
  }
  static std::function<void()> Unlock(const OneClient* client, std::size_t chunk) {
    return [client, chunk] { client->slots->world->table.UnlockResources(client->handle, chunk); };
  }
};

OneClient& ServiceWorld::NewClient() {
  OneClient& client = *clients.emplace_back(std::make_unique<OneClient>());
  client.handle = root.CreateRpcClient(manager);
  return client;
}

void ServiceWorld::Start(OneClient& client) {
  client.slots = &NewSlots("client");
  TARVRpcClientSlots slots{};
  slots.size = sizeof(slots);
  slots.OnStarted = &Hearing::OnClientStarted;
  slots.OnDisconnect = &Hearing::OnClientDisconnect;
  slots.OnMessage = &Hearing::OnClientMessage;
  slots.Release = &Hearing::OnRelease<place::kClientRelease>;
  slots.user_data = client.slots;
  client.slots->is_taken =
      table.StartTask(client.handle, "worker", "/libs", &slots) == QUARN_RESULT_SUCCESS;
  if (client.slots->is_taken) {
    client.task = Task::GetAll().back();
  }
}

void ServiceWorld::CompleteStart(OneClient& client, bool well) {
  if (client.task == nullptr) {
    return;
  }
  const std::size_t channels = TaskMessaging::GetAll().size();
  const auto complete = client.task->complete_start;
  Survive([&] { complete(well ? Error() : Error(7, "no such task")); });
  if (TaskMessaging::GetAll().size() > channels) {
    client.channel = TaskMessaging::GetAll().at(channels);
  }
}

void ServiceWorld::CompleteStops() {
  for (std::size_t i = 0; i < clients.size(); ++i) {
    if (clients[i]->task != nullptr) {
      if (const auto complete = std::exchange(clients[i]->task->complete_stop, nullptr)) {
        complete({});
      }
    }
  }
}

void ServiceWorld::Send(OneClient& client, const char* text) {
  if (client.channel != nullptr) {
    Survive([&] { Q_EMIT client.channel->messageReceived(Envelope(text)); });
  }
}

void ServiceWorld::LoseClient([[maybe_unused]] OneClient& client) {
#ifdef FAKE_OPTIONAL_MEMBERS
  if (client.channel != nullptr) {
    Survive([&] { Q_EMIT client.channel->disconnected(Error(-32003, "gone")); });
  }
  if (client.task != nullptr) {
    Survive([&] { Q_EMIT client.task->finished(Error(-32001, "ended")); });
  }
#endif
}

void ServiceWorld::RunServer() {
  server = root.GetRpcServer(manager);
  Slots& own = NewSlots("server");
  TARVRpcServerSlots slots{};
  slots.size = sizeof(slots);
  slots.OnStarted = &Hearing::OnServerStarted;
  slots.OnMessage = &Hearing::OnServerMessage;
  slots.Release = &Hearing::OnRelease<place::kServerRelease>;
  slots.user_data = &own;
  const std::size_t channels = TaskMessaging::GetAll().size();
  Survive([&] { server_table.Run(server, &slots); });
  // A second Run takes no slots, and opens nothing.
  own.is_taken = TaskMessaging::GetAll().size() > channels;
  if (own.is_taken) {
    server_channel_ = TaskMessaging::GetAll().at(channels);
  }
}

void ServiceWorld::SendToServer(const char* text) {
  if (server_channel_ != nullptr) {
    Survive([&] { Q_EMIT server_channel_->messageReceived(Envelope(text)); });
  }
}

void ServiceWorld::OpenUri() {
  intents = root.GetIntentManager(manager);
  Slots& own = NewSlots("uri");
  TARVOpenUriSlot slot{};
  slot.size = sizeof(slot);
  slot.callback = &Hearing::OnUri;
  slot.release = &Hearing::OnRelease<place::kUriRelease>;
  slot.user_data = &own;
  own.is_taken = true;  // its release may come before OpenUri returns
  own.is_taken = intent_table.OpenUri(intents, "a:1", &slot) == QUARN_RESULT_SUCCESS;
}

void ServiceWorld::AnswerUri() {
  if (root.GetIntentManager(manager) == intents) {
    Survive([] { Q_EMIT IntentsInvoker::GetLatest()->replyReceived({}, {}); });
  }
}

void ServiceWorld::RegisterIntent() {
  intents = root.GetIntentManager(manager);
  Slots& own = NewSlots("intent");
  own.ends_with_process = true;
  TARVRegisterIntentSlot slot{};
  slot.size = sizeof(slot);
  slot.callback = &Hearing::OnIntent;
  slot.user_data = &own;
  own.is_taken = intent_table.RegisterIntent(intents, "show", &slot) == QUARN_RESULT_SUCCESS;
}

void ServiceWorld::InvokeIntent() {
  const auto handlers = RuntimeDispatcher::instance()->handlers;
  const auto found = handlers.find("show");
  if (found != handlers.end()) {
    Survive([&] { found->second({}, [](const QJsonObject&) {}); });
  }
}

void ServiceWorld::AnswerIntents() {
  for (const TARVReplyIntentSlot& reply : std::exchange(replies_, {})) {
    reply.callback(reply.user_data, nullptr, 0);
    reply.release(reply.user_data);
  }
}

void ServiceWorld::UseEverything() {
  for (std::size_t i = 0; i < clients.size(); ++i) {
    OneClient& client = *clients[i];
    table.SendMessage(client.handle, "text");
    table.UnlockResources(client.handle, 12345);
    if (client.slots != nullptr) {
      TARVRpcClientSlots slots{};
      slots.size = sizeof(slots);
      table.StartTask(client.handle, "again", "/libs", &slots);
    }
  }
  server_table.SendMessage(server, "text");
  server_table.UnlockResources(server, 12345);
  TARVOpenUriSlot slot{};
  slot.size = sizeof(slot);
  intent_table.OpenUri(intents, "a:2", &slot);
}

// Each entry is for handles of one kind, and refuses the others.
void ServiceWorld::UseForeignHandles() {
  _TARVRpcClientRef* const client = clients.front()->handle;
  for (void* const handle : std::vector<void*>{manager, server, intents, client, this, nullptr}) {
    if (handle != client) {
      UseAsClient(static_cast<_TARVRpcClientRef*>(handle));
    }
    if (handle != server) {
      UseAsServer(static_cast<_TARVRpcServerRef*>(handle));
    }
    if (handle != intents) {
      UseAsIntents(static_cast<_TARVIntentManagerRef*>(handle));
    }
    if (handle != manager) {
      UseAsManager(static_cast<_TARVManagerRef*>(handle));
    }
  }
}

void ServiceWorld::UseAsClient(_TARVRpcClientRef* handle) {
  ExpectRefused(table.SendMessage(handle, "text") == QUARN_RESULT_REFUSED);
  table.UnlockResources(handle, 1);
  ExpectRefused(table.StartTask(handle, "task", "/libs", nullptr) == QUARN_RESULT_INVALID_ARGUMENT);
  table.Release(handle);
}

void ServiceWorld::UseAsServer(_TARVRpcServerRef* handle) {
  server_table.Run(handle, nullptr);
  server_table.UnlockResources(handle, 1);
  ExpectRefused(server_table.SendMessage(handle, "text") == QUARN_RESULT_REFUSED);
}

void ServiceWorld::UseAsIntents(_TARVIntentManagerRef* handle) {
  TARVOpenUriSlot uri_slot{};
  uri_slot.size = sizeof(uri_slot);
  ExpectRefused(intent_table.OpenUri(handle, "a:3", &uri_slot) == QUARN_RESULT_REFUSED);
  TARVRegisterIntentSlot intent_slot{};
  intent_slot.size = sizeof(intent_slot);
  ExpectRefused(intent_table.RegisterIntent(handle, "foreign", &intent_slot) ==
                QUARN_RESULT_REFUSED);
}

void ServiceWorld::UseAsManager(_TARVManagerRef* handle) {
  root.Release(handle);
  ExpectRefused(root.GetRpcServer(handle) == nullptr);
  ExpectRefused(root.CreateRpcClient(handle) == nullptr);
  ExpectRefused(root.GetIntentManager(handle) == nullptr);
}

void ServiceWorld::ExpectRefused(bool is_refused) {
  if (!is_refused) {
    Fault("a handle of another kind is not refused");
  }
}

// The handle stops working at once.
void ServiceWorld::ReleaseClient(OneClient& client) {
  table.Release(client.handle);
  if (table.StartTask(client.handle, "again", "/libs", nullptr) != QUARN_RESULT_INVALID_ARGUMENT) {
    Fault("a handle works after its Release");
  }
}

void ServiceWorld::ReleaseClients() {
  for (std::size_t i = 0; i < clients.size(); ++i) {
    ReleaseClient(*clients[i]);
  }
}

void ServiceWorld::LoseClients() {
  for (std::size_t i = 0; i < clients.size(); ++i) {
    LoseClient(*clients[i]);
  }
}

void ServiceWorld::MakeAnew() {
  OneClient& client = NewClient();
  Start(client);
  CompleteStart(client, true);
  RunServer();
  OpenUri();
  RegisterIntent();
}

void ServiceWorld::ArriveInNestedLoop() {
  ArriveEverywhere();
  CompleteStops();
}

void ServiceWorld::ArriveEverywhere() {
  for (std::size_t i = 0; i < clients.size(); ++i) {
    Send(*clients[i], "more");
  }
  SendToServer("more");
  AnswerUri();
  InvokeIntent();
}

}  // namespace tarv::torture
