/* The C interface as a C program sees it: compiled as C11 and, by its twin, as C++17. */
#include <stdio.h>
#include <tarv/tarv_capi.h>

static int Fail(const char* what) {
  fprintf(stderr, "%s\n", what);
  return 1;
}

int main(void) {
  TARVProcTable root;
  TARVRpcClientProcTable client;
  _TARVManagerRef* manager;
  _TARVRpcClientRef* handle;
  if (TARVProcTableLoad(&root, sizeof(root)) != QUARN_RESULT_SUCCESS) {
    return Fail("the root table does not load");
  }
  if (root.size != sizeof(root) || root.Initialize == NULL || root.RpcServerProcTableLoad == NULL) {
    return Fail("the root table is not whole");
  }
  if (root.RpcClientProcTableLoad(&client, sizeof(client)) != QUARN_RESULT_SUCCESS) {
    return Fail("the client table does not load");
  }
  manager = root.Initialize();
  handle = root.CreateRpcClient(manager);
  if (manager == NULL || handle == NULL) {
    return Fail("there is no manager or no client");
  }
  if (client.SendMessage(handle, "nobody there") != QUARN_RESULT_REFUSED) {
    return Fail("a client that does not run takes messages");
  }
  root.Release(manager);
  return 0;
}
