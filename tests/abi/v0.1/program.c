/* An application as it was compiled against 0.1.0, with the headers beside it: it starts the task
   "echo", hears it answer, and ends it. The test runs it against today's library, in its event loop. */
#include "program.h"

#include <stdio.h>
#include <string.h>
#include <tarv/tarv_capi.h>

static TARVProcTable root;
static TARVRpcClientProcTable rpc;
static TARVRpcServerProcTable server;
static TARVIntentManagerProcTable intents;
static _TARVRpcClientRef* client;
static struct OldProgramState state;

static void OnStarted(void* user_data, int code, const char* message, size_t chunk) {
  (void)user_data;
  state.started = code == 0 && message[0] == '\0' && chunk == 0;
  if (rpc.SendMessage(client, "hello") != QUARN_RESULT_SUCCESS) {
    fprintf(stderr, "a started client does not send\n");
  }
}
static void OnMessage(void* user_data, const char* message, size_t chunk) {
  (void)user_data;
  state.answered = strcmp(message, "hello") == 0;
  rpc.UnlockResources(client, chunk);
  rpc.Release(client);
}
static void OnDisconnect(void* user_data, int code, const char* message, size_t chunk) {
  (void)user_data;
  state.disconnected = code == 0 && message[0] == '\0' && chunk == 0;
}
static void Release(void* user_data) { state.released = user_data == &state; }

int OldProgramStart(void) {
  TARVRpcClientSlots slots = {sizeof(slots), OnStarted, OnDisconnect, OnMessage, Release, &state};
  if (TARVProcTableLoad(&root, sizeof(root)) != QUARN_RESULT_SUCCESS ||
      root.RpcClientProcTableLoad(&rpc, sizeof(rpc)) != QUARN_RESULT_SUCCESS ||
      root.RpcServerProcTableLoad(&server, sizeof(server)) != QUARN_RESULT_SUCCESS ||
      root.IntentManagerProcTableLoad(&intents, sizeof(intents)) != QUARN_RESULT_SUCCESS) {
    return 0;
  }
  if (!server.Run || !server.SendMessage || !intents.OpenUri || !intents.RegisterIntent) {
    return 0;
  }
  client = root.CreateRpcClient(root.Initialize());
  return client != NULL && root.GetRpcServer(root.Initialize()) != NULL &&
         root.GetIntentManager(root.Initialize()) != NULL &&
         rpc.StartTask(client, "echo", "/libraries", &slots) == QUARN_RESULT_SUCCESS;
}

const struct OldProgramState* OldProgramHeard(void) { return &state; }
