#include <cw/application_wrapper.h>
#include <gmock/gmock.h>

#include <thread>

#include "engine_fixture.h"
#include "support/capture.h"
#include "support/log_line.h"

namespace {

using cw::ApplicationWrapper;
using cw::Permission;
using tarv::test::IsLogLine;
using tarv::test::StdoutOf;
using testing::ElementsAre;

class ApplicationWrapperTest : public veltra::test::EngineTest {
 protected:
  std::shared_ptr<ApplicationWrapper> Make() {
    return ApplicationWrapper::Create(engine_->MakeContext());
  }

  // An engine whose table lacks all but the first `size` bytes.
  std::shared_ptr<ApplicationWrapper> MakeWithTableOf(std::size_t size) {
    veltra::host::EngineOptions options;
    options.table_sizes.application = size;
    Restart(options);
    return Make();
  }
};

TEST_F(ApplicationWrapperTest, IsEmptyWithoutAContextOrAnEntryForItsTable) {
  EXPECT_FALSE(ApplicationWrapper::Create(nullptr));
  EXPECT_FALSE(ApplicationWrapper::Create(engine_->MakeContext(31)));
  EXPECT_TRUE(ApplicationWrapper::Create(engine_->MakeContext(32)));
  veltra::host::EngineOptions options;
  options.missing_entries = {"ApplicationProcTableLoad"};
  Restart(options);
  EXPECT_FALSE(Make());
}

TEST_F(ApplicationWrapperTest, RunsTasksOfAnyThreadOnThePlatformThreadInOrder) {
  const auto application = Make();
  std::vector<int> ran;
  std::vector<std::thread::id> threads;
  std::thread poster([&] {
    for (int i = 0; i < 100; ++i) {
      application->EnqueueTask(
          [&, i] {
            ran.push_back(i);
            threads.push_back(std::this_thread::get_id());
          },
          0);
    }
  });
  poster.join();
  EXPECT_TRUE(ran.empty());
  ASSERT_TRUE(RunUntil([&ran] { return ran.size() == 100; }));
  for (int i = 0; i < 100; ++i) {
    EXPECT_EQ(ran[static_cast<std::size_t>(i)], i);
    EXPECT_EQ(threads[static_cast<std::size_t>(i)], std::this_thread::get_id());
  }
}

TEST_F(ApplicationWrapperTest, IsADispatcherThatCopiesTheTask) {
  const std::shared_ptr<quarn::IDispatcher> dispatcher = Make();
  bool ran = false;
  {
    const std::function<void()> task = [&ran] { ran = true; };
    dispatcher->Invoke(task, 0);
  }
  EXPECT_TRUE(RunUntil([&ran] { return ran; }));
}

TEST_F(ApplicationWrapperTest, PassesTheParameterOnUnchanged) {
  // The workstation's embedder takes it for a delay in milliseconds.
  const auto application = Make();
  std::string order;
  application->EnqueueTask([&order] { order += "late"; }, 40);
  application->EnqueueTask([&order] { order += "soon "; }, 0);
  ASSERT_TRUE(RunUntil([&order] { return order.size() == 9; }));
  EXPECT_EQ(order, "soon late");
}

TEST_F(ApplicationWrapperTest, ReleasesTheTaskAfterItRan) {
  veltra::test::Tracker tracker;
  Make()->EnqueueTask([tracked = tracker.Track()] {}, 0);
  EXPECT_FALSE(tracker.IsReleased());
  EXPECT_TRUE(RunUntil([&tracker] { return tracker.IsReleased(); }));
}

TEST_F(ApplicationWrapperTest, EnqueuesNothingSilentlyWithoutTheEntryAndForAnEmptyTask) {
  EXPECT_EQ(StdoutOf([this] { Make()->EnqueueTask(nullptr, 0); }), "");
  RunPosted();
  veltra::test::Tracker tracker;
  const auto application = MakeWithTableOf(15);
  EXPECT_EQ(StdoutOf([&] { application->EnqueueTask([tracked = tracker.Track()] { FAIL(); }, 0); }),
            "");
  EXPECT_TRUE(tracker.IsReleased());
}

TEST_F(ApplicationWrapperTest, NamesEveryPermissionByItsFixedNumber) {
  const std::vector<std::string_view> names = {"Audio",
                                               "AuthService",
                                               "Bluetooth",
                                               "Call",
                                               "Camera",
                                               "DeviceInfo",
                                               "Documents",
                                               "Downloads",
                                               "Internet",
                                               "Location",
                                               "ManagedConfiguration",
                                               "Market",
                                               "MediaIndexing",
                                               "Microphone",
                                               "Music",
                                               "NFC",
                                               "Pictures",
                                               "Printing",
                                               "PublicDir",
                                               "PushNotifications",
                                               "RemovableMedia",
                                               "ScreenCapture",
                                               "SecureStorage",
                                               "Serial",
                                               "Sensors",
                                               "UserdataWiper",
                                               "UserDirs",
                                               "Videos",
                                               "WebView",
                                               "Contacts"};
  ASSERT_EQ(names.size(), 30U);
  for (std::size_t i = 0; i < names.size(); ++i) {
    EXPECT_EQ(cw::PermissionToStringView(static_cast<Permission>(i + 1)), names[i]);
  }
  EXPECT_EQ(static_cast<int>(Permission::Contacts), 30);
  EXPECT_EQ(static_cast<int>(Permission::WebView), 29);
}

TEST_F(ApplicationWrapperTest, NamesNoPermissionOutsideTheTable) {
  for (const int value : {0, -1, 31, INT32_MAX, INT32_MIN}) {
    EXPECT_TRUE(cw::PermissionToStringView(static_cast<Permission>(value)).empty()) << value;
  }
}

TEST_F(ApplicationWrapperTest, AsksTheEmbedderForPermissions) {
  engine_->GetApplication().SetPermission("Camera", true);
  const auto application = Make();
  EXPECT_TRUE(application->HasPermission("Camera"));
  EXPECT_TRUE(application->HasPermission(Permission::Camera));
  EXPECT_FALSE(application->HasPermission("Microphone"));
  EXPECT_FALSE(application->HasPermission(Permission::Microphone));
  // Names need not end in NUL.
  EXPECT_TRUE(application->HasPermission(std::string_view("Cameras").substr(0, 6)));
  engine_->GetApplication().SetPermission("Camera", false);
  EXPECT_FALSE(application->HasPermission(Permission::Camera));
}

constexpr const char* kUpdateFlutter =
    "Current embedder version does not support HasPermission() method. Please, update flutter "
    "cache by removing `flutter/bin/cache` directory and running `flutter precache` command.";

TEST_F(ApplicationWrapperTest, AdvisesToUpdateWhenPermissionsAreNotProvided) {
  const auto application = MakeWithTableOf(23);
  bool has = true;
  EXPECT_THAT(StdoutOf([&] { has = application->HasPermission(Permission::Camera); }),
              IsLogLine("error", kUpdateFlutter));
  EXPECT_FALSE(has);
  // Looked at before the name is.
  EXPECT_THAT(StdoutOf([&] { application->HasPermission(""); }),
              IsLogLine("error", kUpdateFlutter));
  EXPECT_TRUE(MakeWithTableOf(24));
  EXPECT_EQ(StdoutOf([this] { Make()->HasPermission("Camera"); }), "");
}

TEST_F(ApplicationWrapperTest, RefusesAnEmptyPermission) {
  const auto application = Make();
  constexpr const char* kLine = "Contract violation: permission string cannot be empty.";
  bool has = true;
  EXPECT_THAT(StdoutOf([&] { has = application->HasPermission(""); }), IsLogLine("error", kLine));
  EXPECT_FALSE(has);
  EXPECT_THAT(StdoutOf([&] { application->HasPermission(static_cast<Permission>(31)); }),
              IsLogLine("error", kLine));
}

TEST_F(ApplicationWrapperTest, TellsWhatTheEmbedderKnows) {
  veltra::host::EngineOptions options;
  options.os_version = "Veltra 5";
  options.embedder_version = "2.1";
  options.application_info[FLUTTER_VELTRA_INFO_ID] = "org.example.notes";
  options.directories[FLUTTER_VELTRA_DIRECTORY_CACHE] = "/var/cache/notes";
  options.library_path = "/opt/notes/lib";
  options.entry_point_args = {"--fast", "ü"};
  Restart(options);
  const auto application = Make();
  EXPECT_EQ(application->GetOSVersion(), "Veltra 5");
  EXPECT_EQ(application->GetEmbedderVersion(), "2.1");
  EXPECT_EQ(application->GetApplicationInfo(cw::InfoType::Id), "org.example.notes");
  EXPECT_EQ(application->GetPath(cw::DirectoryType::Cache), "/var/cache/notes");
  EXPECT_EQ(application->GetLibraryPath(), "/opt/notes/lib");
  EXPECT_THAT(application->GetDartEntryPointArgs(), ElementsAre("--fast", "ü"));
}

TEST_F(ApplicationWrapperTest, ReturnsNothingForWhatTheEmbedderDoesNotKnow) {
  const auto application = Make();
  EXPECT_EQ(application->GetApplicationInfo(static_cast<cw::InfoType>(99)), "");
  EXPECT_TRUE(application->GetPath(static_cast<cw::DirectoryType>(99)).empty());
  EXPECT_TRUE(application->GetLibraryPath("libmissing.so").empty());
  EXPECT_TRUE(application->GetDartEntryPointArgs().empty());
}

TEST_F(ApplicationWrapperTest, ExitsTheApplication) {
  Make()->Exit(3);
  EXPECT_EQ(engine_->GetApplication().GetExitCode(), 3);
  EXPECT_EQ(QCoreApplication::exec(), 3);
}

TEST_F(ApplicationWrapperTest, OpensTheMainWindowWithItsPayload) {
  const auto application = Make();
  const cw::EncodableValue payload(cw::EncodableMap{{"page", 7}});
  EXPECT_TRUE(application->CreateMainWindow("start", payload));
  ASSERT_TRUE(engine_->GetApplication().GetMainWindow());
  EXPECT_EQ(engine_->GetApplication().GetMainWindow()->entry_point, "start");
  EXPECT_EQ(engine_->GetApplication().GetMainWindow()->payload, payload);
  EXPECT_FALSE(application->CreateMainWindow());
}

TEST_F(ApplicationWrapperTest, OpensTheMainWindowAtMainByDefault) {
  EXPECT_TRUE(Make()->CreateMainWindow());
  EXPECT_EQ(engine_->GetApplication().GetMainWindow()->entry_point, "main");
}

struct MissingOperation {
  const char* name;
  std::function<bool(const ApplicationWrapper&)> returns_nothing;
};

TEST_F(ApplicationWrapperTest, LogsEachOperationThatIsNotProvided) {
  const MissingOperation operations[] = {
      {"GetOSVersion", [](const auto& app) { return app.GetOSVersion().empty(); }},
      {"GetEmbedderVersion", [](const auto& app) { return app.GetEmbedderVersion().empty(); }},
      {"Exit", [](const auto& app) { return app.Exit(1), true; }},
      {"CreateMainWindow", [](const auto& app) { return !app.CreateMainWindow(); }},
      {"GetApplicationInfo",
       [](const auto& app) { return app.GetApplicationInfo(cw::InfoType::Id).empty(); }},
      {"GetPath", [](const auto& app) { return app.GetPath(cw::DirectoryType::Data).empty(); }},
      {"GetLibraryPath", [](const auto& app) { return app.GetLibraryPath().empty(); }},
      {"GetDartEntryPointArgs",
       [](const auto& app) { return app.GetDartEntryPointArgs().empty(); }},
  };
  for (const MissingOperation& operation : operations) {
    veltra::host::EngineOptions options;
    options.entry_point_args = {"one"};
    options.missing_entries = {operation.name};
    Restart(options);
    const auto application = Make();
    bool returned_nothing = false;
    EXPECT_THAT(StdoutOf([&] { returned_nothing = operation.returns_nothing(*application); }),
                IsLogLine("error", "Method '" + std::string(operation.name) +
                                       "' is not provided by the loaded API."));
    EXPECT_TRUE(returned_nothing) << operation.name;
  }
  EXPECT_FALSE(engine_->GetApplication().GetExitCode());
}

TEST_F(ApplicationWrapperTest, SizeAloneDecidesWhatIsProvided) {
  const auto smaller = MakeWithTableOf(55);
  EXPECT_THAT(StdoutOf([&] { smaller->CreateMainWindow(); }),
              IsLogLine("error", "Method 'CreateMainWindow' is not provided by the loaded API."));
  const auto larger = MakeWithTableOf(56);
  EXPECT_TRUE(larger->CreateMainWindow());
}

}  // namespace
