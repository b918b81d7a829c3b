// A plug-in as far as the registries matter: it finds the library's objects by their handles.
#include <tarv/rpc_client.h>
#include <tarv/rpc_server.h>

extern "C" TARV_EXPORT bool FindsClient(_RpcClientWrapperRef* ref) {
  return tarv::RpcClient::FromRef(ref) != nullptr;
}

extern "C" TARV_EXPORT bool FindsServer(_RpcServerWrapperRef* ref) {
  return tarv::RpcServer::FromRef(ref) != nullptr;
}
