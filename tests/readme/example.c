#include <stdio.h>
#include <tarv/tarv_capi.h>

static TARVProcTable root;
static TARVRpcClientProcTable rpc;
static _TARVRpcClientRef* client;

static void OnStarted(void* user_data, int code, const char* message, size_t chunk) {
  if (code == 0) {
    rpc.SendMessage(client, "hello");
  } else {
    fprintf(stderr, "no task: %s\n", message);
  }
  rpc.UnlockResources(client, chunk);
}
static void OnMessage(void* user_data, const char* message, size_t chunk) {
  printf("the task says: %s\n", message);
  rpc.UnlockResources(client, chunk);
}
void StartEcho(void) { /* on a thread that runs a Qt event loop */
  TARVRpcClientSlots slots = {sizeof(slots), OnStarted, NULL, OnMessage, NULL, NULL};
  TARVProcTableLoad(&root, sizeof(root));
  root.RpcClientProcTableLoad(&rpc, sizeof(rpc));
  client = root.CreateRpcClient(root.Initialize());
  rpc.StartTask(client, "echo", "/opt/app/lib", &slots);
}
