// Whole applications: plug-ins made from their registrars, several processes, and where the library
// lies.

#include <cw/plugin.h>
#include <cw/plugin_registrar.h>
#include <gmock/gmock.h>
#include <quarn/dispatcher.h>
#include <veltra/host/engine.h>

#include <filesystem>
#include <set>
#include <sstream>

#include "application.h"
#include "end_to_end/one_instance.h"
#include "kit/program.h"

namespace tarv::test {
namespace {

namespace fs = std::filesystem;
using testing::SizeIs;

constexpr char kPackedLibraries[] = PACKED_APPLICATION "/lib";
constexpr char kPackedTasks[] = PACKED_APPLICATION "/tasks";

// Starts a task when it is plugged in.
class StarterPlugin final : public cw::Plugin {
 public:
  explicit StarterPlugin(cw::PluginRegistrar* registrar)
      : manager(ManagerWrapper::Create(registrar)), connection(manager->CreateIpcClient("worker")) {
    connection.client->Run();
  }

  std::unique_ptr<ManagerWrapper> manager;
  Connection connection;
};

class Plugins : public EndToEndTest {
 protected:
  static std::weak_ptr<StarterPlugin> PlugInto(veltra::host::Engine& engine) {
    auto* const registrar =
        cw::PluginRegistrarManager::GetInstance().GetRegistrarImpl(engine.MakeContext());
    const auto plugin = std::make_shared<StarterPlugin>(registrar);
    registrar->AddPlugin(plugin);
    return plugin;
  }
  static veltra::host::EngineOptions Options() {
    veltra::host::EngineOptions options;
    options.library_path = LibraryFolder();
    return options;
  }
};

TEST_F(Plugins, MadeFromTheirRegistrarTalkToTheirTask) {
  auto engine = std::make_unique<veltra::host::Engine>(Options());
  const auto plugin = PlugInto(*engine);
  ASSERT_TRUE(plugin.lock());
  Connection& connection = plugin.lock()->connection;
  ASSERT_TRUE(connection.WaitForConnected());
  EXPECT_EQ(connection.Ask("echo", "from a plug-in"), cw::EncodableValue("from a plug-in"));
  EXPECT_EQ(connection.Ask("starter"), cw::EncodableValue(getpid()));
  engine.reset();
  EXPECT_TRUE(plugin.expired()) << "the plug-in goes with its engine";
  EXPECT_TRUE(WaitUntil([] { return Children().empty(); })) << "and the task with the plug-in";
}

TEST_F(Plugins, MayEndTheirEngineFromACallbackOfTheirClient) {
  auto engine = std::make_unique<veltra::host::Engine>(Options());
  const auto plugin = PlugInto(*engine);
  ASSERT_TRUE(plugin.lock());
  plugin.lock()->connection.client->SendRequest(
      "echo", {}, [&engine](const Response& /*response*/) { engine.reset(); });
  EXPECT_TRUE(WaitUntil([&plugin] { return plugin.expired(); }));
  EXPECT_TRUE(WaitUntil([] { return Children().empty(); }));
}

class OneInstance : public EndToEndTest {
 protected:
  // What the packed application says, which has libtarv.so beside its plug-in.
  static void ExpectOneInstanceIn(const fs::path& libraries) {
    const ScopedVariable tasks("RUNTIME_MANAGER_TASK_PATH", kPackedTasks);
    Program probe({PROBE_PROGRAM, libraries.string()});
    EXPECT_EQ(probe.Wait(), 0) << probe.GetOutput() << probe.GetError();
  }
};

TEST_F(OneInstance, IsWhatAnApplicationAndItsTaskLoadFromAFolderThatTheLoaderDoesNotSearch) {
  ExpectOneInstanceIn(kPackedLibraries);
}

TEST_F(OneInstance, IsWhatTheyLoadThroughASymbolicLinkToThatFolder) {
  const fs::path link = Sign("link");
  fs::create_directory_symlink(kPackedLibraries, link);
  ExpectOneInstanceIn(link);
}

TEST_F(OneInstance, IsWhatAProgramThatIsLinkedAgainstItLoads) {
  const std::string path = fs::canonical(fs::path(LibraryFolder()) / "libtarv.so").string();
  const cw::EncodableValue here = ExamineLibrary(LibraryFolder());
  EXPECT_TRUE(IsOneInstance(here, path)) << here;
  const cw::EncodableValue there = StartConnected()->Ask("examine library");
  EXPECT_TRUE(IsOneInstance(there, path)) << there;
}

class CopyOfTheLibrary : public EndToEndTest {};

TEST_F(CopyOfTheLibrary, InAnotherFolderServesAProgramThatIsLinkedAgainstTheFirst) {
  manager_wrapper_ = ManagerWrapper::Create(quarn::IDispatcher::CreateEmpty(), kPackedLibraries);
  ASSERT_TRUE(manager_wrapper_);
  const auto connection = StartConnected();
  EXPECT_EQ(connection->Ask("echo", 1), cw::EncodableValue(1));
  EXPECT_THAT(MappedLibraries(), SizeIs(2));
}

class Crowds : public EndToEndTest {};

// The numbers of the lines "task NUMBER".
std::set<int> ReadTasks(const std::string& output) {
  std::istringstream lines(output);
  std::set<int> tasks;
  const std::string start = "task ";
  for (std::string line; std::getline(lines, line);) {
    if (line.rfind(start, 0) == 0) {
      tasks.insert(std::stoi(line.substr(start.size())));
    }
  }
  return tasks;
}

TEST_F(Crowds, OfTwoApplicationsWithThreeTasksEachDoNotMeet) {
  Program first({CROWD_PROGRAM});
  Program second({CROWD_PROGRAM});
  EXPECT_EQ(first.Wait(), 0) << first.GetError();
  EXPECT_EQ(second.Wait(), 0) << second.GetError();
  std::set<int> tasks = ReadTasks(first.GetOutput());
  EXPECT_THAT(tasks, SizeIs(3));
  tasks.merge(ReadTasks(second.GetOutput()));
  EXPECT_THAT(tasks, SizeIs(6)) << "no task belongs to both";
}

}  // namespace
}  // namespace tarv::test
