// The objects that plug-ins use, over a library that plays the service.

#include <cw/plugin_registrar.h>
#include <dlfcn.h>
#include <gmock/gmock.h>
#include <quarn/dispatcher.h>
#include <tarv/manager_wrapper.h>
#include <tarv/rpc_client.h>
#include <tarv/rpc_server.h>

#include <algorithm>
#include <filesystem>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include "fake_library.h"
#include "support/capture.h"
#include "support/log_line.h"

namespace tarv::test {
namespace {

using testing::Contains;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::IsSupersetOf;
using testing::Not;
using testing::StartsWith;
using vorpc::Message;

constexpr char kFolder[] = FAKE_LIBRARY_FOLDER;

auto IsMissing(const std::string& entry) {
  return IsLogLine("error", "Method '" + entry + "' is not provided by the loaded API.");
}

class Wrapper : public testing::Test {
 protected:
  Wrapper() : handle_(dlopen((std::string(kFolder) + "/libtarv.so").c_str(), RTLD_NOW)) {
    const auto get = reinterpret_cast<GetFakeLibraryFunction*>(dlsym(handle_, "GetFakeLibrary"));
    fake_ = get();
    *fake_ = FakeLibrary();
  }
  ~Wrapper() override { dlclose(handle_); }

  static std::unique_ptr<ManagerWrapper> CreateManager() {
    return ManagerWrapper::Create(quarn::IDispatcher::CreateEmpty(), kFolder);
  }

  std::shared_ptr<vorpc::IClient> CreateClient() {
    manager_ = CreateManager();
    auto client = manager_->CreateIpcClient("worker");
    fake_->calls.clear();
    return client;
  }

  std::shared_ptr<vorpc::IServer> CreateServer() {
    manager_ = CreateManager();
    auto server = manager_->CreateRpcServer();
    fake_->calls.clear();
    return server;
  }

  // What `action` logs when it returns nothing.
  template <class Action>
  static std::string OutputOfFailure(Action&& action) {
    return StdoutOf([&action] { EXPECT_FALSE(action()); });
  }

  void* handle_;
  FakeLibrary* fake_ = nullptr;
  std::unique_ptr<ManagerWrapper> manager_;
};

// ---- ManagerWrapper

class ManagerWrapperTest : public Wrapper {};

TEST_F(ManagerWrapperTest, OfANullRegistrarIsEmptyWithoutAWord) {
  EXPECT_EQ(OutputOfFailure([] { return ManagerWrapper::Create(nullptr); }), "");
}

TEST_F(ManagerWrapperTest, OfAFolderWithoutTheLibraryIsEmptyWithTheLoadersLine) {
  const std::string output = OutputOfFailure(
      [] { return ManagerWrapper::Create(quarn::IDispatcher::CreateEmpty(), "/no/such/folder"); });
  EXPECT_THAT(output, HasSubstr(" Couldn't load library \"\"/no/such/folder/libtarv.so\"\": "));
  EXPECT_EQ(std::count(output.begin(), output.end(), '\n'), 1);
}

TEST_F(ManagerWrapperTest, OfALibraryWithoutTheSymbolIsEmptyWithBothLines) {
  const std::string output = OutputOfFailure([] {
    return ManagerWrapper::Create(quarn::IDispatcher::CreateEmpty(), EMPTY_LIBRARY_FOLDER);
  });
  EXPECT_THAT(output, HasSubstr(" Could not load TARVProcTableLoad symbol: "));
  EXPECT_THAT(output, HasSubstr(" No proc table loader function provided.\n"));
}

TEST_F(ManagerWrapperTest, OfALoaderThatFailsIsEmptyWithALine) {
  fake_->failing = {"TARVProcTableLoad"};
  EXPECT_THAT(OutputOfFailure([] { return CreateManager(); }),
              IsLogLine("error", "Failed to load proc table."));
}

TEST_F(ManagerWrapperTest, OfATableOfSizeEightNamesInitialize) {
  fake_->root_size = 8;
  EXPECT_THAT(OutputOfFailure([] { return CreateManager(); }), IsMissing("Initialize"));
  EXPECT_THAT(fake_->calls, IsEmpty());
}

TEST_F(ManagerWrapperTest, OfATableWithoutInitializeNamesIt) {
  fake_->null_entries = {"Initialize"};
  EXPECT_THAT(OutputOfFailure([] { return CreateManager(); }), IsMissing("Initialize"));
}

TEST_F(ManagerWrapperTest, OfAnInitializeThatFailsIsEmptyWithoutAWord) {
  fake_->failing = {"Initialize"};
  EXPECT_EQ(OutputOfFailure([] { return CreateManager(); }), "");
  EXPECT_THAT(fake_->calls, ElementsAre("Initialize()"));
}

TEST_F(ManagerWrapperTest, ReleasesTheManagerOnceWhenItDies) {
  CreateManager();
  EXPECT_THAT(fake_->calls, ElementsAre("Initialize()", "Release(manager)"));
}

TEST_F(ManagerWrapperTest, WithoutReleaseDiesWithoutAWord) {
  fake_->null_entries = {"Release"};
  EXPECT_EQ(StdoutOf([] { EXPECT_TRUE(CreateManager()); }), "");
  EXPECT_THAT(fake_->calls, ElementsAre("Initialize()"));
}

TEST_F(ManagerWrapperTest, ReleasesAlsoWhenTheSizeDoesNotCoverThatEntry) {
  fake_->root_size = 16;
  CreateManager();
  EXPECT_THAT(fake_->calls, ElementsAre("Initialize()", "Release(manager)"));
}

TEST_F(ManagerWrapperTest, OfSizeFortyHasIntentsButNeitherClientNorServer) {
  fake_->root_size = 40;
  const auto manager = CreateManager();
  EXPECT_TRUE(manager->GetIntentManager());
  EXPECT_THAT(OutputOfFailure([&] { return manager->CreateIpcClient("worker"); }),
              IsMissing("CreateRpcClient"));
  EXPECT_THAT(OutputOfFailure([&] { return manager->CreateRpcServer(); }),
              IsMissing("GetRpcServer"));
}

TEST_F(ManagerWrapperTest, OfSize48NamesTheClientsLoader) {
  fake_->root_size = 48;
  const auto manager = CreateManager();
  EXPECT_THAT(OutputOfFailure([&] { return manager->CreateIpcClient("worker"); }),
              IsMissing("RpcClientProcTableLoad"));
}

TEST_F(ManagerWrapperTest, OfSize64NamesTheServersLoader) {
  fake_->root_size = 64;
  const auto manager = CreateManager();
  EXPECT_THAT(OutputOfFailure([&] { return manager->CreateRpcServer(); }),
              IsMissing("RpcServerProcTableLoad"));
}

// What is missing from a table of some size, by operation; empty where nothing is.
struct MissingAtSize {
  std::uint64_t size;
  std::string intents;
  std::string client;
  std::string server;
};

TEST_F(ManagerWrapperTest, OfEachSizeNamesTheFirstEntryThatIsBeyondIt) {
  const std::vector<MissingAtSize> cases = {
      {16, "IntentManagerProcTableLoad", "CreateRpcClient", "GetRpcServer"},
      {24, "IntentManagerProcTableLoad", "CreateRpcClient", "GetRpcServer"},
      {32, "IntentManagerProcTableLoad", "CreateRpcClient", "GetRpcServer"},
      {39, "IntentManagerProcTableLoad", "CreateRpcClient", "GetRpcServer"},
      {40, "", "CreateRpcClient", "GetRpcServer"},
      {48, "", "RpcClientProcTableLoad", "GetRpcServer"},
      {56, "", "", "GetRpcServer"},
      {64, "", "", "RpcServerProcTableLoad"},
      {72, "", "", ""},
  };
  // What `create` logs, which must agree with whether it returns something.
  const auto check = [](const std::string& missing, const auto& create) {
    bool created = false;
    const std::string output = StdoutOf([&] { created = create() != nullptr; });
    EXPECT_EQ(created, missing.empty());
    if (missing.empty()) {
      EXPECT_EQ(output, "");
    } else {
      EXPECT_THAT(output, IsMissing(missing));
    }
  };
  for (const MissingAtSize& row : cases) {
    SCOPED_TRACE("size " + std::to_string(row.size));
    fake_->root_size = row.size;
    const auto manager = CreateManager();
    ASSERT_TRUE(manager);
    check(row.intents, [&] { return manager->GetIntentManager(); });
    check(row.client, [&] { return manager->CreateIpcClient("worker"); });
    check(row.server, [&] { return manager->CreateRpcServer(); });
  }
}

TEST_F(ManagerWrapperTest, WithoutTheClientsEntriesNamesTheFirst) {
  fake_->null_entries = {"CreateRpcClient", "RpcClientProcTableLoad"};
  const auto manager = CreateManager();
  EXPECT_THAT(OutputOfFailure([&] { return manager->CreateIpcClient("worker"); }),
              IsMissing("CreateRpcClient"));
  EXPECT_THAT(fake_->calls, ElementsAre("Initialize()"));
}

TEST_F(ManagerWrapperTest, WithoutTheClientsLoaderNamesItAndMakesNoClient) {
  fake_->null_entries = {"RpcClientProcTableLoad"};
  const auto manager = CreateManager();
  EXPECT_THAT(OutputOfFailure([&] { return manager->CreateIpcClient("worker"); }),
              IsMissing("RpcClientProcTableLoad"));
  EXPECT_THAT(fake_->calls, ElementsAre("Initialize()"));
}

TEST_F(ManagerWrapperTest, WithoutTheServersEntriesNamesTheFirst) {
  fake_->null_entries = {"GetRpcServer", "RpcServerProcTableLoad"};
  const auto manager = CreateManager();
  EXPECT_THAT(OutputOfFailure([&] { return manager->CreateRpcServer(); }),
              IsMissing("GetRpcServer"));
  EXPECT_THAT(fake_->calls, ElementsAre("Initialize()"));
}

TEST_F(ManagerWrapperTest, WithoutTheServersLoaderNamesItAndAsksForNoServer) {
  fake_->null_entries = {"RpcServerProcTableLoad"};
  const auto manager = CreateManager();
  EXPECT_THAT(OutputOfFailure([&] { return manager->CreateRpcServer(); }),
              IsMissing("RpcServerProcTableLoad"));
  EXPECT_THAT(fake_->calls, ElementsAre("Initialize()"));
}

TEST_F(ManagerWrapperTest, WithoutTheIntentLoaderNamesIt) {
  fake_->null_entries = {"IntentManagerProcTableLoad"};
  const auto manager = CreateManager();
  EXPECT_THAT(OutputOfFailure([&] { return manager->GetIntentManager(); }),
              IsMissing("IntentManagerProcTableLoad"));
}

TEST_F(ManagerWrapperTest, OfAnEmptyFolderLooksNowhereElse) {
  // Found under this name, with no folder, is what is loaded already.
  EXPECT_THAT(
      OutputOfFailure([] { return ManagerWrapper::Create(quarn::IDispatcher::CreateEmpty(), ""); }),
      IsLogLine("error",
                "Couldn't load library \"\"libtarv.so\"\": the application's library folder "
                "is unknown; see to it that the embedder reports one"));
  EXPECT_THAT(fake_->calls, IsEmpty());
}

// Registrars of an embedder that knows little.
class RegistrarOfAManager : public ManagerWrapperTest {
 protected:
  static FlutterVeltraPluginContext MakeContext() {
    FlutterVeltraPluginContext context{};
    context.size = sizeof(context);
    context.engine = reinterpret_cast<_FlutterVeltraEngine*>(4711);
    return context;
  }

  // Whether the library was loaded for such a registrar, and what was logged meanwhile.
  static std::string OutputOf(FlutterVeltraPluginContext context, bool expected) {
    cw::PluginRegistrar registrar(&context);
    return StdoutOf([&] { EXPECT_EQ(ManagerWrapper::Create(&registrar) != nullptr, expected); });
  }

  static bool LoadApplication(_FlutterVeltraEngine*, FlutterVeltraApplicationProcTable* table,
                              std::size_t) {
    table->GetLibraryPath = [](_FlutterVeltraEngine*, const char* name) {
      return *name == '\0' ? kFolder : nullptr;
    };
    return true;
  }
};

TEST_F(RegistrarOfAManager, NamesTheFolderThatTheLibraryIsLoadedFrom) {
  FlutterVeltraPluginContext context = MakeContext();
  context.ApplicationProcTableLoad = &LoadApplication;
  EXPECT_EQ(OutputOf(context, true), "");
  EXPECT_THAT(fake_->calls, ElementsAre("Initialize()", "Release(manager)"));
}

TEST_F(RegistrarOfAManager, WithoutALibraryPathGivesNone) {
  const std::string output = OutputOf(MakeContext(), false);
  EXPECT_THAT(output, HasSubstr(" Method 'GetLibraryPath' is not provided by the loaded API.\n"));
  EXPECT_THAT(output, HasSubstr(" Couldn't load library \"\"libtarv.so\"\": "));
  EXPECT_EQ(std::count(output.begin(), output.end(), '\n'), 2);
  EXPECT_THAT(fake_->calls, IsEmpty());
}

TEST_F(ManagerWrapperTest, WithoutBothIntentEntriesNamesOnlyTheLoader) {
  fake_->null_entries = {"GetIntentManager", "IntentManagerProcTableLoad"};
  const auto manager = CreateManager();
  EXPECT_THAT(OutputOfFailure([&] { return manager->GetIntentManager(); }),
              IsMissing("IntentManagerProcTableLoad"));
}

TEST_F(ManagerWrapperTest, WithoutGetIntentManagerNamesIt) {
  fake_->null_entries = {"GetIntentManager"};
  const auto manager = CreateManager();
  EXPECT_THAT(OutputOfFailure([&] { return manager->GetIntentManager(); }),
              IsMissing("GetIntentManager"));
  EXPECT_THAT(fake_->calls, ElementsAre("Initialize()"));
}

TEST_F(ManagerWrapperTest, LoadsTheIntentTableBeforeItAsksForTheObject) {
  const auto manager = CreateManager();
  manager->GetIntentManager();
  EXPECT_THAT(fake_->calls, ElementsAre("Initialize()", "LoadIntents()", "GetIntentManager()"));
}

TEST_F(ManagerWrapperTest, AsksForTheClientBeforeItLoadsItsTable) {
  const auto manager = CreateManager();
  const auto client = manager->CreateIpcClient("worker");
  EXPECT_THAT(fake_->calls, ElementsAre("Initialize()", "CreateRpcClient()", "LoadClient()",
                                        StartsWith("StartTask('worker', ")));
}

TEST_F(ManagerWrapperTest, AsksForTheServerBeforeItLoadsItsTable) {
  const auto manager = CreateManager();
  const auto server = manager->CreateRpcServer();
  EXPECT_THAT(fake_->calls, ElementsAre("Initialize()", "GetRpcServer()", "LoadServer()"));
}

TEST_F(ManagerWrapperTest, GivesNothingWithoutAWordWhereTheServiceGivesNull) {
  fake_->failing = {"GetIntentManager", "CreateRpcClient", "GetRpcServer"};
  const auto manager = CreateManager();
  EXPECT_EQ(OutputOfFailure([&] { return manager->GetIntentManager(); }), "");
  EXPECT_EQ(OutputOfFailure([&] { return manager->CreateIpcClient("worker"); }), "");
  EXPECT_EQ(OutputOfFailure([&] { return manager->CreateRpcServer(); }), "");
}

TEST_F(ManagerWrapperTest, GivesNothingAndReleasesNothingWhereATableDoesNotLoad) {
  fake_->failing = {"LoadIntents", "LoadClient", "LoadServer"};
  const auto manager = CreateManager();
  const auto line = IsLogLine("error", "Failed to load proc table.");
  EXPECT_THAT(OutputOfFailure([&] { return manager->GetIntentManager(); }), line);
  EXPECT_THAT(OutputOfFailure([&] { return manager->CreateIpcClient("worker"); }), line);
  EXPECT_THAT(OutputOfFailure([&] { return manager->CreateRpcServer(); }), line);
  EXPECT_THAT(fake_->calls, Not(Contains("Release(client)")));
}

TEST_F(ManagerWrapperTest, ObjectsThatOutliveItKeepTheLibraryLoaded) {
  auto client = CreateClient();
  manager_.reset();
  client.reset();
  EXPECT_THAT(fake_->calls, ElementsAre("Release(manager)", "Release(client)"));
}

// ---- RpcClient

class RpcClientWrapper : public Wrapper {
 protected:
  void Started(int code, const char* message, std::size_t chunk) const {
    fake_->client_slots.OnStarted(fake_->client_slots.user_data, code, message, chunk);
  }
  void Disconnected(int code, const char* message, std::size_t chunk) const {
    fake_->client_slots.OnDisconnect(fake_->client_slots.user_data, code, message, chunk);
  }
  void Received(const std::string& text, std::size_t chunk) const {
    fake_->client_slots.OnMessage(fake_->client_slots.user_data, text.c_str(), chunk);
  }

  // The message that the wrapper sent last.
  Message LastSent() const {
    std::string call = fake_->calls.back();
    return Message::FromBase64(call.substr(6, call.size() - 8));
  }

  // A client whose handshake is done.
  std::shared_ptr<vorpc::IClient> CreateConnectedClient() {
    auto client = CreateClient();
    Connect(*client);
    return client;
  }

  void Connect(vorpc::IClient& client) {
    client.Run();
    Started(0, "", 0);
    const Message connect = LastSent();
    Received(Message::CreateResponse(connect.GetRequest()->id, {}).ToBase64(), 1);
    EXPECT_TRUE(client.IsConnected());
    fake_->calls.clear();
  }

  // A client over a table that the test can change afterwards.
  std::shared_ptr<vorpc::IClient> CreateClientOverOwnTable() {
    const auto library = quarn::Library::Create(std::string(kFolder) + "/libtarv.so");
    TARVProcTable root{};
    library->Resolve<QuarnResult(TARVProcTable*, std::size_t)>("TARVProcTableLoad")(&root,
                                                                                    sizeof(root));
    const std::shared_ptr<RpcClient::Api> api =
        RpcClient::Api::Create(library, root.RpcClientProcTableLoad);
    table_ = const_cast<TARVRpcClientProcTable*>(&api->GetTable());
    auto client = RpcClient::Create(quarn::IDispatcher::CreateEmpty(), "worker", api,
                                    reinterpret_cast<_TARVRpcClientRef*>(13));
    fake_->calls.clear();
    return client;
  }

  TARVRpcClientProcTable* table_ = nullptr;
};

TEST_F(RpcClientWrapper, WithoutATableOrAHandleIsEmptyWithoutAWord) {
  const auto library = quarn::Library::Create(std::string(kFolder) + "/libtarv.so");
  const std::shared_ptr<RpcClient::Api> api = RpcClient::Api::Create(
      library, [](TARVRpcClientProcTable*, std::uint64_t) { return QUARN_RESULT_SUCCESS; });
  auto* const handle = reinterpret_cast<_TARVRpcClientRef*>(7);
  EXPECT_EQ(OutputOfFailure([&] { return RpcClient::Create(nullptr, "w", nullptr, handle); }), "");
  EXPECT_EQ(OutputOfFailure([&] { return RpcClient::Create(nullptr, "w", api, nullptr); }), "");
}

TEST_F(RpcClientWrapper, ChecksItsEntriesInOrderAndNamesTheFirstThatIsMissing) {
  const auto output = [] {
    return OutputOfFailure([] { return CreateManager()->CreateIpcClient("worker"); });
  };
  fake_->null_entries = {"SendMessage", "StartTask", "UnlockResources", "client Release"};
  EXPECT_THAT(output(), IsMissing("SendMessage"));
  fake_->null_entries.erase("SendMessage");
  EXPECT_THAT(output(), IsMissing("StartTask"));
  fake_->null_entries.erase("StartTask");
  EXPECT_THAT(output(), IsMissing("UnlockResources"));
  fake_->null_entries.erase("UnlockResources");
  EXPECT_THAT(output(), IsMissing("Release"));
}

TEST_F(RpcClientWrapper, OfATableOfSize24NamesSendMessage) {
  fake_->client_size = 24;
  EXPECT_THAT(OutputOfFailure([] { return CreateManager()->CreateIpcClient("worker"); }),
              IsMissing("SendMessage"));
}

TEST_F(RpcClientWrapper, OfATableOfSize32NamesRelease) {
  fake_->client_size = 32;
  EXPECT_THAT(OutputOfFailure([] { return CreateManager()->CreateIpcClient("worker"); }),
              IsMissing("Release"));
}

TEST_F(RpcClientWrapper, StartsTheTaskWithTheFolderOfTheLibraryAndItsOwnSlots) {
  const auto manager = CreateManager();
  const auto client = manager->CreateIpcClient("worker");
  EXPECT_EQ(fake_->calls.back(), "StartTask('worker', '" + std::string(kFolder) + "')");
  EXPECT_EQ(fake_->client_slots.size, 48U);
  EXPECT_NE(fake_->client_slots.OnStarted, nullptr);
  EXPECT_NE(fake_->client_slots.OnDisconnect, nullptr);
  EXPECT_NE(fake_->client_slots.OnMessage, nullptr);
  EXPECT_EQ(fake_->client_slots.Release, nullptr);
}

TEST_F(RpcClientWrapper, WhoseStartIsRefusedIsEmptyAndReleasesTheServicesClient) {
  fake_->failing = {"StartTask"};
  const auto manager = CreateManager();
  EXPECT_EQ(OutputOfFailure([&] { return manager->CreateIpcClient("worker"); }), "");
  EXPECT_EQ(fake_->calls.back(), "Release(client)");
}

TEST_F(RpcClientWrapper, ShakesHandsOnceBothRunAndStartHaveHappened) {
  const auto client = CreateClient();
  client->Run();
  EXPECT_THAT(fake_->calls, IsEmpty());
  Started(0, "", 0);
  ASSERT_EQ(fake_->calls.size(), 1U);
  EXPECT_TRUE(LastSent().IsRequest("vorpc.connected"));
}

TEST_F(RpcClientWrapper, SendsRequestsAndHandsResponsesToTheirCallbacks) {
  const auto client = CreateConnectedClient();
  cw::EncodableValue result;
  client->SendRequest("add", cw::EncodableList{1, 2}, [&result](const Message::Response& response) {
    result = *response.GetResult();
  });
  const Message request = LastSent();
  ASSERT_TRUE(request.IsRequest("add"));
  EXPECT_EQ(request.GetRequest()->params, cw::EncodableValue(cw::EncodableList{1, 2}));
  Received(Message::CreateResponse(request.GetRequest()->id, 3).ToBase64(), 77);
  EXPECT_EQ(result, cw::EncodableValue(3));
  EXPECT_EQ(fake_->calls.back(), "Unlock(77)");
}

TEST_F(RpcClientWrapper, IgnoresTheResultOfASend) {
  const auto client = CreateConnectedClient();
  fake_->failing = {"SendMessage"};
  client->SendNotify("tick", {});
  EXPECT_TRUE(client->IsConnected());
}

TEST_F(RpcClientWrapper, SendWithoutTheEntryLogsThatItIsNotProvided) {
  const auto client = CreateClientOverOwnTable();
  Started(0, "", 0);
  table_->SendMessage = nullptr;
  EXPECT_THAT(StdoutOf([&client] { client->Run(); }), IsMissing("SendMessage"));
  EXPECT_THAT(fake_->calls, IsEmpty());
}

TEST_F(RpcClientWrapper, SendBeyondTheSizeOfTheTableLogsThatItIsNotProvided) {
  const auto client = CreateClientOverOwnTable();
  Started(0, "", 0);
  table_->size = 31;
  EXPECT_THAT(StdoutOf([&client] { client->Run(); }), IsMissing("SendMessage"));
  EXPECT_THAT(fake_->calls, IsEmpty());
}

TEST_F(RpcClientWrapper, MessageWithoutTheUnlockEntryLogsThatItIsNotProvided) {
  const auto client = CreateClientOverOwnTable();
  std::vector<std::string> heard;
  client->OnNotify("tick",
                   [&heard](const auto& notification) { heard.push_back(notification.method); });
  Connect(*client);
  table_->UnlockResources = nullptr;
  const std::string tick = Message::CreateNotification("tick", {}).ToBase64();
  EXPECT_THAT(StdoutOf([&] { Received(tick, 5); }), IsMissing("UnlockResources"));
  EXPECT_THAT(heard, ElementsAre("tick"));
  EXPECT_THAT(fake_->calls, IsEmpty());
}

TEST_F(RpcClientWrapper, DisconnectWithoutTheUnlockEntryLogsThatItIsNotProvided) {
  const auto client = CreateClientOverOwnTable();
  Connect(*client);
  int disconnects = 0;
  client->OnDisconnected([&disconnects](const auto&) { ++disconnects; });
  table_->size = 23;
  EXPECT_THAT(StdoutOf([this] { Disconnected(0, "", 5); }), IsMissing("UnlockResources"));
  EXPECT_EQ(disconnects, 1);
  EXPECT_THAT(fake_->calls, IsEmpty());
}

TEST_F(RpcClientWrapper, LetGoInsideASendSendsNothingMore) {
  auto client = CreateClient();
  client->SendNotify("first", {});
  client->SendNotify("second", {});
  client->Run();
  Started(0, "", 0);
  const Message connect = LastSent();
  fake_->calls.clear();
  // The first message that had to wait lets the client go while the second still waits.
  fake_->on_send = [&client] { client.reset(); };
  Received(Message::CreateResponse(connect.GetRequest()->id, {}).ToBase64(), 1);
  EXPECT_THAT(fake_->calls, ElementsAre(StartsWith("Send("), "Unlock(1)", "Release(client)"));
}

TEST_F(RpcClientWrapper, SendAfterTheTableIsGoneSendsNothing) {
  auto client = CreateConnectedClient();
  vorpc::IClient* const handle = client.get();
  // The table goes inside the first send; the JSON-RPC client is still in the middle of it.
  fake_->on_send = [this, &client] {
    fake_->on_send = nullptr;
    client.reset();
    manager_.reset();
  };
  handle->SendNotify("first", {});
  EXPECT_THAT(fake_->calls,
              ElementsAre(StartsWith("Send("), "Release(client)", "Release(manager)"));
}

TEST_F(RpcClientWrapper, ReleaseIsNotCheckedAgain) {
  auto client = CreateClientOverOwnTable();
  table_->size = 8;
  EXPECT_EQ(StdoutOf([&client] { client.reset(); }), "");
  EXPECT_THAT(fake_->calls, ElementsAre("Release(client)"));
}

TEST_F(RpcClientWrapper, EmptyTextIsNotDecodedAndItsChunkIsStillUnlocked) {
  const auto client = CreateClient();
  EXPECT_EQ(StdoutOf([this] { Received("", 5); }), "");
  EXPECT_THAT(fake_->calls, ElementsAre("Unlock(5)"));
}

TEST_F(RpcClientWrapper, UndecodableTextIsUnlockedToo) {
  const auto client = CreateConnectedClient();
  StdoutOf([this] { Received("%%% no message %%%", 6); });
  EXPECT_THAT(fake_->calls, ElementsAre("Unlock(6)"));
}

TEST_F(RpcClientWrapper, NullTextIsALogicErrorAndItsChunkIsStillUnlocked) {
  const auto client = CreateClient();
  EXPECT_THROW(fake_->client_slots.OnMessage(fake_->client_slots.user_data, nullptr, 8),
               std::logic_error);
  EXPECT_THAT(fake_->calls, ElementsAre("Unlock(8)"));
}

TEST_F(RpcClientWrapper, ExceptionOfACallbackReachesTheServiceAndTheChunkIsStillUnlocked) {
  const auto client = CreateConnectedClient();
  client->OnNotify("tick", [](const Message::Notification&) { throw std::runtime_error("no"); });
  EXPECT_THROW(Received(Message::CreateNotification("tick", {}).ToBase64(), 9), std::runtime_error);
  EXPECT_THAT(fake_->calls, ElementsAre("Unlock(9)"));
}

TEST_F(RpcClientWrapper, FailedStartFailsTheConnectionWithTheServicesErrorAndUnlocks) {
  const auto client = CreateClient();
  std::optional<Message::Error> error;
  client->OnConnected([&error](const auto& outcome) { error = outcome; });
  client->Run();
  Started(-32603, "no such task", 10);
  EXPECT_TRUE(client->HasConnectionFailed());
  EXPECT_EQ(error, Message::Error(-32603, "no such task"));
  EXPECT_THAT(fake_->calls, ElementsAre("Unlock(10)"));
}

TEST_F(RpcClientWrapper, ExceptionOfAFailedStartStillUnlocks) {
  const auto client = CreateClient();
  client->OnConnected([](const auto&) { throw std::runtime_error("no"); });
  client->Run();
  EXPECT_THROW(Started(-32603, "no such task", 10), std::runtime_error);
  EXPECT_THAT(fake_->calls, ElementsAre("Unlock(10)"));
  EXPECT_TRUE(client->HasConnectionFailed());
}

TEST_F(RpcClientWrapper, FailedStartWithoutAChunkUnlocksNothing) {
  const auto client = CreateClient();
  client->Run();
  Started(-32603, "no such task", 0);
  EXPECT_TRUE(client->HasConnectionFailed());
  EXPECT_THAT(fake_->calls, IsEmpty());
}

TEST_F(RpcClientWrapper, FailedStartBeforeRunFailsTheConnectionAtRun) {
  const auto client = CreateClient();
  Started(-32603, "no such task", 10);
  std::optional<Message::Error> error;
  client->OnConnected([&error](const auto& outcome) { error = outcome; });
  client->Run();
  EXPECT_EQ(error, Message::Error(-32603, "no such task"));
  EXPECT_TRUE(client->HasConnectionFailed());
}

TEST_F(RpcClientWrapper, StartWithoutAChunkUnlocksNothing) {
  const auto client = CreateClient();
  Started(0, "", 0);
  EXPECT_THAT(fake_->calls, IsEmpty());
}

TEST_F(RpcClientWrapper, LostTaskFailsPendingRequestsWithTheReason) {
  const auto client = CreateConnectedClient();
  std::optional<Message::Error> pending;
  std::optional<Message::Error> disconnected;
  client->OnDisconnected([&disconnected](const auto& error) { disconnected = error; });
  client->SendRequest(
      "add", {}, [&pending](const Message::Response& response) { pending = *response.GetError(); });
  Disconnected(-32603, "the task was killed", 12);
  EXPECT_EQ(pending, Message::Error(-32603, "the task was killed"));
  EXPECT_EQ(disconnected, Message::Error(-32603, "the task was killed"));
  EXPECT_EQ(fake_->calls.back(), "Unlock(12)");
}

TEST_F(RpcClientWrapper, OrderlyDisconnectHasNoErrorAndUnlocksWhateverTheChunk) {
  const auto client = CreateConnectedClient();
  int disconnects = 0;
  client->OnDisconnected([&disconnects](const auto& error) {
    EXPECT_FALSE(error);
    ++disconnects;
  });
  Disconnected(0, "", 0);
  EXPECT_EQ(disconnects, 1);
  EXPECT_THAT(fake_->calls, ElementsAre("Unlock(0)"));
}

TEST_F(RpcClientWrapper, StartsAndForgetsRequestsByTheirIds) {
  const auto client = CreateConnectedClient();
  auto* const requests = dynamic_cast<vorpc::IRequests*>(client.get());
  ASSERT_NE(requests, nullptr);
  bool answered = false;
  const auto id = requests->StartRequest("a", 5, [&](const auto&) { answered = true; });
  EXPECT_EQ(LastSent(), Message::CreateRequest(id, "a", 5));
  const auto forgotten = requests->StartRequest("b", {}, [](const auto&) { ADD_FAILURE(); });
  EXPECT_TRUE(requests->ForgetRequest(forgotten));
  EXPECT_FALSE(requests->ForgetRequest(forgotten));
  Received(Message::CreateResponse(id, {}).ToBase64(), 1);
  EXPECT_EQ(StdoutOf([&] { Received(Message::CreateResponse(forgotten, {}).ToBase64(), 2); }), "");
  EXPECT_TRUE(answered);
}

TEST_F(RpcClientWrapper, ReleasesTheServicesClientOnceWhenItDies) {
  auto client = CreateClient();
  client.reset();
  EXPECT_THAT(fake_->calls, ElementsAre("Release(client)"));
}

TEST_F(RpcClientWrapper, CallbacksForAClientThatIsGoneDoNothingAndUnlockNothing) {
  auto client = CreateClient();
  client.reset();
  fake_->calls.clear();
  Started(0, "", 3);
  Received("text", 4);
  Disconnected(-1, "text", 5);
  EXPECT_THAT(fake_->calls, IsEmpty());
}

TEST_F(RpcClientWrapper, MayDieInsideEachOfItsCallbacks) {
  for (const std::string callback : {"connected", "notify", "response", "disconnected"}) {
    SCOPED_TRACE(callback);
    auto client = CreateClient();
    const auto drop_at = [&client, &callback](const std::string& here) {
      if (here == callback) {
        client.reset();
      }
    };
    client->OnConnected([&](const auto&) { drop_at("connected"); });
    client->OnDisconnected([&](const auto&) { drop_at("disconnected"); });
    client->OnNotify("tick", [&](const auto&) { drop_at("notify"); });
    client->Run();
    Started(0, "", 0);
    Received(Message::CreateResponse(LastSent().GetRequest()->id, {}).ToBase64(), 1);
    if (client) {
      client->SendRequest("add", {}, [&](const auto&) { drop_at("response"); });
      const Message request = LastSent();
      Received(Message::CreateNotification("tick", {}).ToBase64(), 2);
      Received(Message::CreateResponse(request.GetRequest()->id, {}).ToBase64(), 3);
      Disconnected(-1, "gone", 4);
    }
    EXPECT_FALSE(client);
    EXPECT_THAT(fake_->calls, Contains("Release(client)"));
  }
}

// ---- RpcServer

class RpcServerWrapper : public Wrapper {
 protected:
  void Started(std::size_t chunk) const {
    fake_->server_slots.OnStarted(fake_->server_slots.user_data, 0, "", chunk);
  }
  void Received(const std::string& text, std::size_t chunk) const {
    fake_->server_slots.OnMessage(fake_->server_slots.user_data, text.c_str(), chunk);
  }
  Message LastSent() const {
    std::string call = fake_->calls.back();
    return Message::FromBase64(call.substr(6, call.size() - 8));
  }

  static std::string ConnectRequest() {
    return Message::CreateRequest(Message::ID(1), "vorpc.connected", {}).ToBase64();
  }

  // A server whose handshake is done.
  std::shared_ptr<vorpc::IServer> CreateConnectedServer() {
    auto server = CreateServer();
    server->Run();
    Started(0);
    Received(ConnectRequest(), 0);
    fake_->calls.clear();
    return server;
  }
};

TEST_F(RpcServerWrapper, WithoutATableOrAHandleIsEmptyWithoutAWord) {
  const auto library = quarn::Library::Create(std::string(kFolder) + "/libtarv.so");
  const std::shared_ptr<RpcServer::Api> api = RpcServer::Api::Create(
      library, [](TARVRpcServerProcTable*, std::uint64_t) { return QUARN_RESULT_SUCCESS; });
  auto* const handle = reinterpret_cast<_TARVRpcServerRef*>(7);
  EXPECT_EQ(OutputOfFailure([&] { return RpcServer::Create(nullptr, nullptr, handle); }), "");
  EXPECT_EQ(OutputOfFailure([&] { return RpcServer::Create(nullptr, api, nullptr); }), "");
}

TEST_F(RpcServerWrapper, ChecksItsEntriesInOrderAndNamesTheFirstThatIsMissing) {
  const auto output = [] {
    return OutputOfFailure([] { return CreateManager()->CreateRpcServer(); });
  };
  fake_->null_entries = {"Run", "SendMessage", "UnlockResources"};
  EXPECT_THAT(output(), IsMissing("Run"));
  fake_->null_entries.erase("Run");
  EXPECT_THAT(output(), IsMissing("SendMessage"));
  fake_->null_entries.erase("SendMessage");
  EXPECT_THAT(output(), IsMissing("UnlockResources"));
}

TEST_F(RpcServerWrapper, OfATableOfSize24NamesSendMessage) {
  fake_->server_size = 24;
  EXPECT_THAT(OutputOfFailure([] { return CreateManager()->CreateRpcServer(); }),
              IsMissing("SendMessage"));
}

TEST_F(RpcServerWrapper, RunHandsItsSlotsToTheService) {
  const auto server = CreateServer();
  server->Run();
  EXPECT_THAT(fake_->calls, ElementsAre("Run()"));
  EXPECT_EQ(fake_->server_slots.size, 40U);
  EXPECT_NE(fake_->server_slots.OnStarted, nullptr);
  EXPECT_NE(fake_->server_slots.OnMessage, nullptr);
  EXPECT_EQ(fake_->server_slots.Release, nullptr);
}

TEST_F(RpcServerWrapper, AnswersTheHandshakeOnceTheServiceHasStarted) {
  const auto server = CreateServer();
  server->Run();
  Received(Message::CreateRequest(Message::ID(1), "vorpc.connected", {}).ToBase64(), 2);
  EXPECT_EQ(fake_->calls.back(), "Unlock(2)");
  Started(0);
  const Message answer = LastSent();
  ASSERT_NE(answer.GetResponse(), nullptr);
  EXPECT_EQ(answer.GetResponse()->id, Message::ID(1));
  EXPECT_TRUE(answer.GetResponse()->HasResult());
}

TEST_F(RpcServerWrapper, StartWithAChunkUnlocksIt) {
  const auto server = CreateServer();
  server->Run();
  Started(21);
  EXPECT_EQ(fake_->calls.back(), "Unlock(21)");
}

TEST_F(RpcServerWrapper, ServesRequests) {
  const auto server = CreateServer();
  server->OnRequest("double", [](const std::string&, const cw::EncodableValue& params,
                                 std::unique_ptr<vorpc::IReply>&& reply) {
    reply->SendResult(2 * std::get<std::int32_t>(params));
  });
  server->Run();
  Started(0);
  Received(Message::CreateRequest(Message::ID(1), "vorpc.connected", {}).ToBase64(), 2);
  fake_->calls.clear();
  Received(Message::CreateRequest(Message::ID(2), "double", 21).ToBase64(), 3);
  ASSERT_EQ(fake_->calls.size(), 2U);
  EXPECT_EQ(fake_->calls.back(), "Unlock(3)");
  fake_->calls.pop_back();
  EXPECT_EQ(*LastSent().GetResponse()->GetResult(), cw::EncodableValue(42));
}

TEST_F(RpcServerWrapper, StartWithACodeRunsAllTheSame) {
  const auto server = CreateServer();
  server->Run();
  Received(ConnectRequest(), 0);
  EXPECT_THAT(fake_->calls, ElementsAre("Run()"));
  fake_->server_slots.OnStarted(fake_->server_slots.user_data, -32603, "not looked at", 0);
  ASSERT_EQ(fake_->calls.size(), 2U);
  EXPECT_TRUE(LastSent().GetResponse()->HasResult());
}

TEST_F(RpcServerWrapper, ServesRequestsByAHandlerRegisteredAfterRun) {
  const auto server = CreateConnectedServer();
  server->OnRequest("late",
                    [](const std::string&, const cw::EncodableValue&,
                       std::unique_ptr<vorpc::IReply>&& reply) { reply->SendResult("ok"); });
  Received(Message::CreateRequest(Message::ID(2), "late", {}).ToBase64(), 0);
  EXPECT_EQ(*LastSent().GetResponse()->GetResult(), cw::EncodableValue("ok"));
}

TEST_F(RpcServerWrapper, UndecodableTextIsUnlockedToo) {
  const auto server = CreateConnectedServer();
  StdoutOf([this] { Received("%%% no message %%%", 6); });
  EXPECT_THAT(fake_->calls, ElementsAre("Unlock(6)"));
}

TEST_F(RpcServerWrapper, NullTextIsALogicErrorAndItsChunkIsStillUnlocked) {
  const auto server = CreateConnectedServer();
  EXPECT_THROW(fake_->server_slots.OnMessage(fake_->server_slots.user_data, nullptr, 8),
               std::logic_error);
  EXPECT_THAT(fake_->calls, ElementsAre("Unlock(8)"));
}

TEST_F(RpcServerWrapper, ExceptionOfAHandlerReachesTheServiceAndTheChunkIsStillUnlocked) {
  const auto server = CreateConnectedServer();
  server->OnNotify("tick", [](const Message::Notification&) { throw std::runtime_error("no"); });
  EXPECT_THROW(Received(Message::CreateNotification("tick", {}).ToBase64(), 9), std::runtime_error);
  EXPECT_THAT(fake_->calls, ElementsAre("Unlock(9)"));
}

TEST_F(RpcServerWrapper, MayDieInsideEachOfItsCallbacks) {
  for (const std::string callback : {"connected", "notify", "request"}) {
    SCOPED_TRACE(callback);
    auto server = CreateServer();
    const auto drop_at = [&server, &callback](const std::string& here) {
      EXPECT_TRUE(server) << "a callback after the end: " << here;
      if (here == callback) {
        server.reset();
      }
    };
    server->OnConnected([&](const auto&) { drop_at("connected"); });
    server->OnNotify("tick", [&](const auto&) { drop_at("notify"); });
    server->OnRequest("ask", [&](const auto&, const auto&, auto&&) { drop_at("request"); });
    server->Run();
    Started(1);
    Received(ConnectRequest(), 2);
    Received(Message::CreateNotification("tick", {}).ToBase64(), 3);
    Received(Message::CreateRequest(Message::ID(2), "ask", {}).ToBase64(), 4);
    EXPECT_FALSE(server);
    // What came to a server that was still there has been unlocked.
    EXPECT_THAT(fake_->calls, IsSupersetOf({"Unlock(1)", "Unlock(2)"}));
    EXPECT_EQ(testing::Value(fake_->calls, Contains("Unlock(3)")), callback != "connected");
    EXPECT_EQ(testing::Value(fake_->calls, Contains("Unlock(4)")), callback == "request");
  }
}

TEST_F(RpcServerWrapper, MessageWithoutAChunkUnlocksNothing) {
  const auto server = CreateServer();
  server->Run();
  fake_->calls.clear();
  Received(Message::CreateNotification("tick", {}).ToBase64(), 0);
  EXPECT_THAT(fake_->calls, IsEmpty());
}

TEST_F(RpcServerWrapper, EmptyTextIsNotDecodedAndItsChunkIsStillUnlocked) {
  const auto server = CreateServer();
  server->Run();
  fake_->calls.clear();
  EXPECT_EQ(StdoutOf([this] { Received("", 5); }), "");
  EXPECT_THAT(fake_->calls, ElementsAre("Unlock(5)"));
}

TEST_F(RpcServerWrapper, DestroyedBeforeRunLeavesTheServiceUntouched) {
  auto server = CreateServer();
  server.reset();
  EXPECT_THAT(fake_->calls, IsEmpty());
}

TEST_F(RpcServerWrapper, CallbacksForAServerThatIsGoneDoNothing) {
  auto server = CreateServer();
  server->Run();
  server.reset();
  fake_->calls.clear();
  Started(3);
  Received("text", 4);
  EXPECT_THAT(fake_->calls, IsEmpty());
}

TEST_F(RpcServerWrapper, ReplyThatOutlivesTheServerSendsNothing) {
  auto server = CreateServer();
  std::unique_ptr<vorpc::IReply> late;
  server->OnRequest("slow",
                    [&late](const std::string&, const cw::EncodableValue&,
                            std::unique_ptr<vorpc::IReply>&& reply) { late = std::move(reply); });
  server->Run();
  Started(0);
  Received(Message::CreateRequest(Message::ID(1), "vorpc.connected", {}).ToBase64(), 0);
  Received(Message::CreateRequest(Message::ID(2), "slow", {}).ToBase64(), 0);
  server.reset();
  fake_->calls.clear();
  late->SendResult({});
  EXPECT_THAT(fake_->calls, IsEmpty());
}

// ---- IntentManager

class IntentManagerWrapper : public Wrapper {
 protected:
  std::unique_ptr<IntentManager> CreateIntents() {
    manager_ = CreateManager();
    auto intents = manager_->GetIntentManager();
    fake_->calls.clear();
    return intents;
  }
};

TEST_F(IntentManagerWrapper, WithoutATableOrAHandleIsEmptyWithoutAWord) {
  auto* const handle = reinterpret_cast<_TARVIntentManagerRef*>(7);
  EXPECT_EQ(OutputOfFailure([&] { return IntentManager::Create(nullptr, handle); }), "");
  const auto library = quarn::Library::Create(std::string(kFolder) + "/libtarv.so");
  auto api = IntentManager::Api::Create(
      library, [](TARVIntentManagerProcTable*, std::uint64_t) { return QUARN_RESULT_SUCCESS; });
  EXPECT_EQ(OutputOfFailure([&] { return IntentManager::Create(std::move(api), nullptr); }), "");
}

TEST_F(IntentManagerWrapper, OfATableOfSizeEightNamesOpenUriAndDropsTheCallbackUncalled) {
  fake_->intents_size = 8;
  const auto intents = CreateIntents();
  const auto alive = std::make_shared<int>(0);
  EXPECT_THAT(StdoutOf([&] { intents->OpenUri("a:1", [alive](bool) { ADD_FAILURE(); }); }),
              IsMissing("OpenUri"));
  EXPECT_EQ(alive.use_count(), 1);
}

TEST_F(IntentManagerWrapper, EachOpenUriHasASlotOfItsOwnCalledAndReleasedOnce) {
  const auto intents = CreateIntents();
  std::vector<std::string> outcomes;
  const auto alive = std::make_shared<int>(0);
  for (const std::string uri : {"a:1", "a:2"}) {
    intents->OpenUri(uri, [&outcomes, alive, uri](bool success) {
      outcomes.push_back(uri + (success ? " opened" : " failed"));
    });
  }
  EXPECT_THAT(fake_->calls, ElementsAre("OpenUri('a:1')", "OpenUri('a:2')"));
  EXPECT_EQ(alive.use_count(), 3);
  for (const TARVOpenUriSlot& slot : fake_->uri_slots) {
    EXPECT_EQ(slot.size, 32U);
    slot.callback(slot.user_data, &slot == &fake_->uri_slots.front());
    slot.release(slot.user_data);
  }
  EXPECT_THAT(outcomes, ElementsAre("a:1 opened", "a:2 failed"));
  EXPECT_EQ(alive.use_count(), 1);
}

TEST_F(IntentManagerWrapper, RefusedRequestNeitherCallsNorReleasesTheCallback) {
  fake_->failing = {"OpenUri"};
  const auto intents = CreateIntents();
  const auto alive = std::make_shared<int>(0);
  intents->OpenUri("a:1", [alive](bool) { ADD_FAILURE(); });
  EXPECT_EQ(alive.use_count(), 2);
  // What the service did not take is the test's to free.
  fake_->uri_slots[0].release(fake_->uri_slots[0].user_data);
}

TEST_F(IntentManagerWrapper, EmptyCallbackRaisesTheStandardErrorWhenCalled) {
  const auto intents = CreateIntents();
  intents->OpenUri("a:1", nullptr);
  const TARVOpenUriSlot slot = fake_->uri_slots.at(0);
  EXPECT_THROW(slot.callback(slot.user_data, true), std::bad_function_call);
  slot.release(slot.user_data);
}

TEST_F(IntentManagerWrapper, CallsNothingInTheServiceWhenItDies) {
  auto intents = CreateIntents();
  intents.reset();
  EXPECT_THAT(fake_->calls, IsEmpty());
}

}  // namespace
}  // namespace tarv::test
