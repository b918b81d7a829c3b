#include <quarn/logger.h>
#include <quarn/sized_struct.h>
#include <tarv/tarv_capi.h>

#include "intent_manager_impl.h"
#include "manager.h"
#include "rpc_client_impl.h"
#include "rpc_server_impl.h"

using tarv::RpcClientImpl;
using tarv::RpcServerImpl;
using tarv::details::Manager;

QuarnResult TARVProcTableLoad(TARVProcTable* table, std::size_t size) {
  if (table == nullptr) {
    QUARN_LOG_ERROR() << "Null table specified.";
    return QUARN_RESULT_INVALID_ARGUMENT;
  }
  quarn::StructFiller<TARVProcTable>(table, size)
      .Fill(&TARVProcTable::Initialize, &Manager::HandleInitialize)
      .Fill(&TARVProcTable::Release, &Manager::HandleRelease)
      .Fill(&TARVProcTable::GetIntentManager, &Manager::HandleGetIntentManager)
      .Fill(&TARVProcTable::IntentManagerProcTableLoad, &IntentManagerImpl::HandleLoadProcTable)
      .Fill(&TARVProcTable::CreateRpcClient, &Manager::HandleCreateRpcClient)
      .Fill(&TARVProcTable::RpcClientProcTableLoad, &RpcClientImpl::HandleLoadProcTable)
      .Fill(&TARVProcTable::GetRpcServer, &Manager::HandleGetRpcServer)
      .Fill(&TARVProcTable::RpcServerProcTableLoad, &RpcServerImpl::HandleLoadProcTable);
  return QUARN_RESULT_SUCCESS;
}
