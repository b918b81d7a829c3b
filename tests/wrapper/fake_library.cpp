#include "fake_library.h"

#include <cstring>

namespace {

tarv::test::FakeLibrary library;

template <class Ref>
Ref* HandleOf(std::uintptr_t number, const char* entry) {
  return library.failing.count(entry) != 0 ? nullptr : reinterpret_cast<Ref*>(number);
}

QuarnResult Answer(const char* entry) {
  return library.failing.count(entry) != 0 ? QUARN_RESULT_REFUSED : QUARN_RESULT_SUCCESS;
}

void Log(const std::string& call) { library.calls.push_back(call); }

std::string Quote(const char* text) { return "'" + std::string(text) + "'"; }

QuarnResult StartTask(_TARVRpcClientRef*, const char* name, const char* libs,
                      TARVRpcClientSlots* slots) {
  Log("StartTask(" + Quote(name) + ", " + Quote(libs) + ")");
  library.client_slots = *slots;
  return Answer("StartTask");
}

void UnlockClient(_TARVRpcClientRef*, size_t chunk) {
  Log("Unlock(" + std::to_string(chunk) + ")");
}

QuarnResult SendFromClient(_TARVRpcClientRef*, const char* text) {
  Log("Send(" + Quote(text) + ")");
  if (const auto on_send = library.on_send) {
    on_send();
  }
  return Answer("SendMessage");
}

void ReleaseClient(_TARVRpcClientRef*) { Log("Release(client)"); }

void Run(_TARVRpcServerRef*, TARVRpcServerSlots* slots) {
  Log("Run()");
  library.server_slots = *slots;
}

void UnlockServer(_TARVRpcServerRef*, size_t chunk) {
  Log("Unlock(" + std::to_string(chunk) + ")");
}

QuarnResult SendFromServer(_TARVRpcServerRef*, const char* text) {
  Log("Send(" + Quote(text) + ")");
  return QUARN_RESULT_SUCCESS;
}

QuarnResult OpenUri(_TARVIntentManagerRef*, const char* uri, TARVOpenUriSlot* slot) {
  Log("OpenUri(" + Quote(uri) + ")");
  library.uri_slots.push_back(*slot);
  return Answer("OpenUri");
}

template <class Table, class Entry>
void Fill(Table* table, Entry Table::*field, Entry entry, const char* name) {
  table->*field = library.null_entries.count(name) != 0 ? nullptr : entry;
}

// Fills the whole table, whatever size it then states.
template <class Table>
QuarnResult Finish(Table* table, std::uint64_t stated, const char* loader) {
  if (stated != 0) {
    table->size = stated;
  }
  return Answer(loader);
}

QuarnResult LoadClient(TARVRpcClientProcTable* table, size_t) {
  Log("LoadClient()");
  Fill(table, &TARVRpcClientProcTable::StartTask, &StartTask, "StartTask");
  Fill(table, &TARVRpcClientProcTable::UnlockResources, &UnlockClient, "UnlockResources");
  Fill(table, &TARVRpcClientProcTable::SendMessage, &SendFromClient, "SendMessage");
  Fill(table, &TARVRpcClientProcTable::Release, &ReleaseClient, "client Release");
  return Finish(table, library.client_size, "LoadClient");
}

QuarnResult LoadServer(TARVRpcServerProcTable* table, size_t) {
  Log("LoadServer()");
  Fill(table, &TARVRpcServerProcTable::Run, &Run, "Run");
  Fill(table, &TARVRpcServerProcTable::UnlockResources, &UnlockServer, "UnlockResources");
  Fill(table, &TARVRpcServerProcTable::SendMessage, &SendFromServer, "SendMessage");
  return Finish(table, library.server_size, "LoadServer");
}

QuarnResult LoadIntents(TARVIntentManagerProcTable* table, size_t) {
  Log("LoadIntents()");
  Fill(table, &TARVIntentManagerProcTable::OpenUri, &OpenUri, "OpenUri");
  return Finish(table, library.intents_size, "LoadIntents");
}

_TARVManagerRef* Initialize() {
  Log("Initialize()");
  return HandleOf<_TARVManagerRef>(11, "Initialize");
}

void ReleaseManager(_TARVManagerRef*) { Log("Release(manager)"); }

_TARVIntentManagerRef* GetIntentManager(_TARVManagerRef*) {
  Log("GetIntentManager()");
  return HandleOf<_TARVIntentManagerRef>(12, "GetIntentManager");
}

_TARVRpcClientRef* CreateRpcClient(_TARVManagerRef*) {
  Log("CreateRpcClient()");
  return HandleOf<_TARVRpcClientRef>(13, "CreateRpcClient");
}

_TARVRpcServerRef* GetRpcServer(_TARVManagerRef*) {
  Log("GetRpcServer()");
  return HandleOf<_TARVRpcServerRef>(14, "GetRpcServer");
}

}  // namespace

extern "C" TARV_EXPORT tarv::test::FakeLibrary* GetFakeLibrary() { return &library; }

QuarnResult TARVProcTableLoad(TARVProcTable* table, size_t) {
  using Table = TARVProcTable;
  Fill(table, &Table::Initialize, &Initialize, "Initialize");
  Fill(table, &Table::Release, &ReleaseManager, "Release");
  Fill(table, &Table::GetIntentManager, &GetIntentManager, "GetIntentManager");
  Fill(table, &Table::IntentManagerProcTableLoad, &LoadIntents, "IntentManagerProcTableLoad");
  Fill(table, &Table::CreateRpcClient, &CreateRpcClient, "CreateRpcClient");
  Fill(table, &Table::RpcClientProcTableLoad, &LoadClient, "RpcClientProcTableLoad");
  Fill(table, &Table::GetRpcServer, &GetRpcServer, "GetRpcServer");
  Fill(table, &Table::RpcServerProcTableLoad, &LoadServer, "RpcServerProcTableLoad");
  return Finish(table, library.root_size, "TARVProcTableLoad");
}
