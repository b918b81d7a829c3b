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

std::string Print(const char* text) { return "'" + std::string(text) + "'"; }
std::string Print(std::size_t number) { return std::to_string(number); }
// A handle is a number in a pointer's clothes.
template <class Ref>
std::string Print(Ref* handle) {
  return Print(reinterpret_cast<std::size_t>(handle));
}

// Writes down the call with all that it was given.
template <class... Args>
void Log(const std::string& entry, Args... args) {
  std::string list;
  ((list += (list.empty() ? "" : ", ") + Print(args)), ...);
  library.calls.push_back(entry + "(" + list + ")");
}

QuarnResult StartTask(_TARVRpcClientRef* client, const char* name, const char* libs,
                      TARVRpcClientSlots* slots) {
  Log("StartTask", client, name, libs);
  library.client_slots = *slots;
  return Answer("StartTask");
}

void UnlockClient(_TARVRpcClientRef* client, size_t chunk) { Log("Unlock", client, chunk); }

QuarnResult SendFromClient(_TARVRpcClientRef* client, const char* text) {
  Log("Send", client, text);
  if (const auto on_send = library.on_send) {
    on_send();
  }
  return Answer("SendMessage");
}

void ReleaseClient(_TARVRpcClientRef* client) { Log("ReleaseClient", client); }

void Run(_TARVRpcServerRef* server, TARVRpcServerSlots* slots) {
  Log("Run", server);
  library.server_slots = *slots;
}

void UnlockServer(_TARVRpcServerRef* server, size_t chunk) { Log("Unlock", server, chunk); }

QuarnResult SendFromServer(_TARVRpcServerRef* server, const char* text) {
  Log("Send", server, text);
  return Answer("SendMessage");
}

QuarnResult OpenUri(_TARVIntentManagerRef* intents, const char* uri, TARVOpenUriSlot* slot) {
  Log("OpenUri", intents, uri);
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

QuarnResult LoadClient(TARVRpcClientProcTable* table, size_t size) {
  Log("LoadClient", size);
  Fill(table, &TARVRpcClientProcTable::StartTask, &StartTask, "StartTask");
  Fill(table, &TARVRpcClientProcTable::UnlockResources, &UnlockClient, "UnlockResources");
  Fill(table, &TARVRpcClientProcTable::SendMessage, &SendFromClient, "SendMessage");
  Fill(table, &TARVRpcClientProcTable::Release, &ReleaseClient, "client Release");
  return Finish(table, library.client_size, "LoadClient");
}

QuarnResult LoadServer(TARVRpcServerProcTable* table, size_t size) {
  Log("LoadServer", size);
  Fill(table, &TARVRpcServerProcTable::Run, &Run, "Run");
  Fill(table, &TARVRpcServerProcTable::UnlockResources, &UnlockServer, "UnlockResources");
  Fill(table, &TARVRpcServerProcTable::SendMessage, &SendFromServer, "SendMessage");
  return Finish(table, library.server_size, "LoadServer");
}

QuarnResult LoadIntents(TARVIntentManagerProcTable* table, size_t size) {
  Log("LoadIntents", size);
  Fill(table, &TARVIntentManagerProcTable::OpenUri, &OpenUri, "OpenUri");
  return Finish(table, library.intents_size, "LoadIntents");
}

_TARVManagerRef* Initialize() {
  Log("Initialize");
  return HandleOf<_TARVManagerRef>(11, "Initialize");
}

void ReleaseManager(_TARVManagerRef* manager) {
  Log("ReleaseManager", manager);
  if (const auto on_release = library.on_release) {
    on_release();
  }
}

_TARVIntentManagerRef* GetIntentManager(_TARVManagerRef* manager) {
  Log("GetIntentManager", manager);
  return HandleOf<_TARVIntentManagerRef>(12, "GetIntentManager");
}

_TARVRpcClientRef* CreateRpcClient(_TARVManagerRef* manager) {
  Log("CreateRpcClient", manager);
  return HandleOf<_TARVRpcClientRef>(13, "CreateRpcClient");
}

_TARVRpcServerRef* GetRpcServer(_TARVManagerRef* manager) {
  Log("GetRpcServer", manager);
  return HandleOf<_TARVRpcServerRef>(14, "GetRpcServer");
}

}  // namespace

extern "C" TARV_EXPORT tarv::test::FakeLibrary* GetFakeLibrary() { return &library; }

QuarnResult TARVProcTableLoad(TARVProcTable* table, size_t size) {
  library.root_size_given = size;
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
