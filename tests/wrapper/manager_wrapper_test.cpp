#include <cw/plugin_registrar.h>
#include <gmock/gmock.h>
#include <tarv/manager_wrapper.h>
#include <tarv/rpc_client.h>
#include <tarv/rpc_server.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <string>
#include <vector>

#include "support/memory_usage.h"
#include "wrapper_fixture.h"

namespace tarv::test {
namespace {

using testing::Contains;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::IsSupersetOf;
using testing::Not;
using testing::StartsWith;

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
  EXPECT_THAT(fake_->calls, ElementsAre("Initialize()", "ReleaseManager(11)"));
}

TEST_F(ManagerWrapperTest, HasALifetimeThatExpiresWithIt) {
  auto manager = CreateManager();
  const auto other = CreateManager();
  const std::weak_ptr<const void> lifetime = manager->GetLifetime();
  EXPECT_FALSE(lifetime.expired());
  manager.reset();
  EXPECT_TRUE(lifetime.expired());
  EXPECT_FALSE(other->GetLifetime().expired());
}

TEST_F(ManagerWrapperTest, WithoutReleaseDiesWithoutAWord) {
  fake_->null_entries = {"Release"};
  EXPECT_EQ(StdoutOf([] { EXPECT_TRUE(CreateManager()); }), "");
  EXPECT_THAT(fake_->calls, ElementsAre("Initialize()"));
}

TEST_F(ManagerWrapperTest, ReleasesAlsoWhenTheSizeDoesNotCoverThatEntry) {
  fake_->root_size = 16;
  CreateManager();
  EXPECT_THAT(fake_->calls, ElementsAre("Initialize()", "ReleaseManager(11)"));
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
      {100, "", "", ""},
  };
  for (const MissingAtSize& row : cases) {
    SCOPED_TRACE("size " + std::to_string(row.size));
    fake_->root_size = row.size;
    const auto manager = CreateManager();
    ASSERT_TRUE(manager);
    ExpectMissing(row.intents, [&] { return manager->GetIntentManager(); });
    ExpectMissing(row.client, [&] { return manager->CreateIpcClient("worker"); });
    ExpectMissing(row.server, [&] { return manager->CreateRpcServer(); });
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
    table->EnqueueTask = [](_FlutterVeltraEngine* engine, const FlutterVeltraSlot* task,
                            unsigned int param) {
      tasks_.push_back(std::to_string(reinterpret_cast<std::size_t>(engine)) + ", " +
                       std::to_string(param));
      task->callback(task->user_data);
      task->release(task->user_data);
    };
    return true;
  }

  // The engine and the parameter of each posted task.
  static inline std::vector<std::string> tasks_;
};

TEST_F(RegistrarOfAManager, IsTheDispatcherOfWhatTheManagerMakes) {
  FlutterVeltraPluginContext context = MakeContext();
  context.ApplicationProcTableLoad = &LoadApplication;
  cw::PluginRegistrar registrar(&context);
  const auto manager = ManagerWrapper::Create(&registrar);
  tasks_.clear();
  bool ran = false;
  dynamic_cast<RpcServer&>(*manager->CreateRpcServer()).Invoke([&ran] { ran = true; }, 8);
  EXPECT_TRUE(ran);
  EXPECT_THAT(tasks_, ElementsAre("4711, 8"));
}

TEST_F(RegistrarOfAManager, NamesTheFolderThatTheLibraryIsLoadedFrom) {
  FlutterVeltraPluginContext context = MakeContext();
  context.ApplicationProcTableLoad = &LoadApplication;
  EXPECT_EQ(OutputOf(context, true), "");
  EXPECT_THAT(fake_->calls, ElementsAre("Initialize()", "ReleaseManager(11)"));
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
  EXPECT_THAT(fake_->calls, ElementsAre("Initialize()", "LoadIntents(24)", "GetIntentManager(11)"));
}

TEST_F(ManagerWrapperTest, AsksForTheClientBeforeItLoadsItsTable) {
  const auto manager = CreateManager();
  const auto client = manager->CreateIpcClient("worker");
  EXPECT_THAT(fake_->calls, ElementsAre("Initialize()", "CreateRpcClient(11)", "LoadClient(40)",
                                        StartsWith("StartTask(13, 'worker', ")));
}

TEST_F(ManagerWrapperTest, AsksForTheServerBeforeItLoadsItsTable) {
  const auto manager = CreateManager();
  const auto server = manager->CreateRpcServer();
  EXPECT_THAT(fake_->calls, ElementsAre("Initialize()", "GetRpcServer(11)", "LoadServer(32)"));
}

TEST_F(ManagerWrapperTest, GivesNothingWithoutAWordWhereTheServiceGivesNull) {
  fake_->failing = {"GetIntentManager", "CreateRpcClient", "GetRpcServer"};
  const auto manager = CreateManager();
  EXPECT_EQ(OutputOfFailure([&] { return manager->GetIntentManager(); }), "");
  EXPECT_EQ(OutputOfFailure([&] { return manager->CreateIpcClient("worker"); }), "");
  EXPECT_EQ(OutputOfFailure([&] { return manager->CreateRpcServer(); }), "");
  EXPECT_THAT(fake_->calls, Not(Contains(StartsWith("LoadClient"))));
  EXPECT_THAT(fake_->calls, Not(Contains(StartsWith("LoadServer"))));
}

TEST_F(ManagerWrapperTest, GivesNothingAndReleasesNothingWhereATableDoesNotLoad) {
  fake_->failing = {"LoadIntents", "LoadClient", "LoadServer"};
  const auto manager = CreateManager();
  const auto line = IsLogLine("error", "Failed to load proc table.");
  EXPECT_THAT(OutputOfFailure([&] { return manager->GetIntentManager(); }), line);
  EXPECT_THAT(OutputOfFailure([&] { return manager->CreateIpcClient("worker"); }), line);
  EXPECT_THAT(OutputOfFailure([&] { return manager->CreateRpcServer(); }), line);
  EXPECT_THAT(fake_->calls, Not(Contains("ReleaseClient(13)")));
}

TEST_F(ManagerWrapperTest, ObjectsThatOutliveItKeepTheLibraryLoaded) {
  auto client = CreateClient();
  manager_.reset();
  client.reset();
  EXPECT_THAT(fake_->calls, ElementsAre("ReleaseManager(11)", "ReleaseClient(13)"));
}

// Only Create makes one.
static_assert(!std::is_constructible_v<ManagerWrapper, std::shared_ptr<quarn::IDispatcher>,
                                       std::unique_ptr<ManagerWrapper::Api>, _TARVManagerRef*>);

TEST_F(ManagerWrapperTest, GivesEachLoaderTheWholeSizeOfItsTable) {
  const auto manager = CreateManager();
  manager->GetIntentManager();
  const auto client = manager->CreateIpcClient("worker");
  const auto server = manager->CreateRpcServer();
  EXPECT_EQ(fake_->root_size_given, 72U);
  EXPECT_THAT(fake_->calls, IsSupersetOf({"LoadIntents(24)", "LoadClient(40)", "LoadServer(32)"}));
}

TEST_F(ManagerWrapperTest, GivesItsDispatcherToTheClientAndTheServer) {
  const auto dispatcher = std::make_shared<RecordingDispatcher>();
  const auto manager = ManagerWrapper::Create(dispatcher, kFolder);
  const auto client = manager->CreateIpcClient("worker");
  const auto server = manager->CreateRpcServer();
  int runs = 0;
  dynamic_cast<RpcClient&>(*client).Invoke([&runs] { ++runs; }, 5);
  dynamic_cast<RpcServer&>(*server).Invoke([&runs] { ++runs; }, 6);
  EXPECT_THAT(dispatcher->params, ElementsAre(5U, 6U));
  EXPECT_EQ(runs, 2);
}

TEST_F(ManagerWrapperTest, RefusesATaskWhoseNameHoldsANulAndReleasesTheServicesClient) {
  const auto manager = CreateManager();
  EXPECT_THAT(
      OutputOfFailure([&] { return manager->CreateIpcClient(std::string("work\0er", 7)); }),
      IsLogLine("error",
                "The name of the task to start holds a NUL at byte 4 of 7 and was refused: take it "
                "out."));
  EXPECT_THAT(fake_->calls, ElementsAre("Initialize()", "CreateRpcClient(11)", "LoadClient(40)",
                                        "ReleaseClient(13)"));
}

ITaskClient& TaskOf(const std::shared_ptr<vorpc::IClient>& client) {
  return dynamic_cast<ITaskClient&>(*client);
}

TEST_F(ManagerWrapperTest, TellsItsClientsOnceThatItHasEnded) {
  const auto client = CreateClient();
  std::vector<EndedManager> ended;
  TaskOf(client).OnManagerEnded([&](EndedManager manager) {
    ended.push_back(manager);
    EXPECT_THAT(fake_->calls, ElementsAre("ReleaseManager(11)"));
  });
  manager_.reset();
  EXPECT_THAT(ended, ElementsAre(EndedManager::kOwn));
  CreateManager();
  EXPECT_THAT(ended, ElementsAre(EndedManager::kOwn));
}

TEST_F(ManagerWrapperTest, TellsTheClientsOfAnotherManagerThatItHasEnded) {
  const auto client = CreateClient();
  std::vector<EndedManager> ended;
  TaskOf(client).OnManagerEnded([&](EndedManager manager) { ended.push_back(manager); });
  CreateManager();
  EXPECT_THAT(ended, ElementsAre(EndedManager::kAnother));
}

TEST_F(ManagerWrapperTest, TellsNothingMoreToAClientThatItsUserLetsGo) {
  auto client = CreateClient();
  int told = 0;
  TaskOf(client).OnManagerEnded([&](EndedManager) {
    ++told;
    client.reset();
  });
  TaskOf(client).OnManagerEnded([&](EndedManager) { ++told; });
  manager_.reset();
  EXPECT_EQ(told, 1);
}

TEST_F(ManagerWrapperTest, KeepsNothingOfAClientThatIsGone) {
  manager_ = CreateManager();
  const auto make_and_release = [this] {
    EXPECT_TRUE(manager_->CreateIpcClient("worker"));
    fake_->calls.clear();
  };
  make_and_release();  // what serves all clients is there from now on
  const std::size_t before = GetMemoryUsage().held;
  make_and_release();
  EXPECT_EQ(GetMemoryUsage().held, before);
}

TEST_F(ManagerWrapperTest, LogsWhatACallbackThrowsWhileItIsDestroyed) {
  fake_->on_release = [] { throw std::runtime_error("not now"); };
  EXPECT_THAT(StdoutOf([] { CreateManager(); }),
              IsLogLine("error",
                        "A callback that learned of the manager's end threw: not now. Nothing can "
                        "hear of it there: catch it in the callback."));
  fake_->on_release = [] { throw 5; };
  EXPECT_THAT(StdoutOf([] { CreateManager(); }), HasSubstr(" threw: no std::exception. "));
}

}  // namespace
}  // namespace tarv::test
