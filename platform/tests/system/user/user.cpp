// Makes an object of each of the runtime manager's classes through the C interface, uses it and
// ends it. Says on standard output what it has heard.

#include <tarv/tarv_capi.h>

#include <QCoreApplication>
#include <QTimer>
#include <cstdio>

namespace {

struct User {
  User() {
    TARVProcTableLoad(&root, sizeof(root));
    root.RpcClientProcTableLoad(&client_table, sizeof(client_table));
    root.RpcServerProcTableLoad(&server_table, sizeof(server_table));
    root.IntentManagerProcTableLoad(&intent_table, sizeof(intent_table));
    manager = root.Initialize();
  }

  TARVProcTable root{};
  TARVRpcClientProcTable client_table{};
  TARVRpcServerProcTable server_table{};
  TARVIntentManagerProcTable intent_table{};
  _TARVManagerRef* manager = nullptr;
  _TARVRpcClientRef* client = nullptr;
};

// The task's echo comes; the client is released, and its slots go once the task has stopped.
void StartClient(User& user) {
  TARVRpcClientSlots callbacks{};
  callbacks.size = sizeof(callbacks);
  callbacks.OnStarted = [](void* data, int code, const char*, size_t) {
    const auto* const self = static_cast<User*>(data);
    std::printf("started with %d\n", code);
    self->client_table.SendMessage(self->client, "hello");
  };
  callbacks.OnMessage = [](void* data, const char* text, size_t chunk) {
    const auto* const self = static_cast<User*>(data);
    std::printf("the task says %s\n", text);
    self->client_table.UnlockResources(self->client, chunk);
    self->client_table.Release(self->client);
  };
  callbacks.Release = [](void*) {
    std::printf("released\n");
    QCoreApplication::quit();
  };
  callbacks.user_data = &user;
  user.client = user.root.CreateRpcClient(user.manager);
  user.client_table.StartTask(user.client, "task", "/libraries", &callbacks);
}

void RunServer(User& user) {
  TARVRpcServerSlots callbacks{};
  callbacks.size = sizeof(callbacks);
  callbacks.OnMessage = [](void* data, const char* text, size_t) {
    std::printf("the starter says %s\n", text);
    StartClient(*static_cast<User*>(data));
  };
  callbacks.user_data = &user;
  _TARVRpcServerRef* const server = user.root.GetRpcServer(user.manager);
  user.server_table.Run(server, &callbacks);
  user.server_table.SendMessage(server, "hello");
}

void OpenUri(User& user) {
  TARVOpenUriSlot slot{};
  slot.size = sizeof(slot);
  slot.callback = [](void* data, bool success) {
    std::printf("opened: %s\n", success ? "yes" : "no");
    RunServer(*static_cast<User*>(data));
  };
  slot.user_data = &user;
  user.intent_table.OpenUri(user.root.GetIntentManager(user.manager), "a:1", &slot);
}

}  // namespace

int main(int argc, char** argv) {
  QCoreApplication application(argc, argv);
  User user;
  OpenUri(user);
  QTimer::singleShot(60'000, [] { QCoreApplication::exit(1); });
  const int status = QCoreApplication::exec();
  user.root.Release(user.manager);
  return status;
}
