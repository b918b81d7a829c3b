// The plug-in of the example "checksums" in an engine of the test's own, which decides what the
// application hears when.

#include <gmock/gmock.h>
#include <veltra/host/engine.h>

#include <QCoreApplication>
#include <chrono>
#include <fstream>
#include <iterator>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "checksums/application/application_plugin.h"
#include "checksums/names.h"
#include "kit/service.h"
#include "kit/surroundings.h"

namespace tarv::test {
namespace {

using veltra::host::MethodOutcome;

int argument_count = 1;
char program_name[] = "example_tests";
char* arguments[] = {program_name, nullptr};

std::string CpuTime(int process) {
  std::ifstream file("/proc/" + std::to_string(process) + "/schedstat");
  std::string nanoseconds;
  file >> nanoseconds;
  return nanoseconds;
}

// Not one that waits for a processor.
bool Sleeps(int process) {
  std::ifstream file("/proc/" + std::to_string(process) + "/stat");
  const std::string stat(std::istreambuf_iterator<char>(file), {});
  return stat.find(") S ") != std::string::npos;
}

// Waits, without running events, until a process has nothing left to do.
void WaitUntilIdle(int process) {
  std::string before;
  for (std::string now = CpuTime(process); now != before || !Sleeps(process);
       now = CpuTime(process)) {
    before = now;
    std::this_thread::sleep_for(std::chrono::milliseconds(300));
  }
}

class ChecksumsPlugin : public testing::Test {
 protected:
  ChecksumsPlugin() : application_(argument_count, arguments), engine_(Options()) {
    ChecksumsPluginRegisterWithRegistrar(engine_.MakeContext());
  }

  static veltra::host::EngineOptions Options() {
    veltra::host::EngineOptions options;
    options.library_path = BIN_FOLDER "/../lib";
    return options;
  }

  // `count` small files.
  cw::EncodableList Write(int count) const {
    cw::EncodableList paths;
    for (int i = 0; i < count; ++i) {
      const std::string path = (folder_.GetPath() / std::to_string(i)).string();
      std::ofstream(path) << i;
      paths.emplace_back(std::vector<std::uint8_t>(path.begin(), path.end()));
    }
    return paths;
  }

  const RuntimeFolder folder_;
  const ScopedVariable task_path_{"RUNTIME_MANAGER_TASK_PATH", BIN_FOLDER "/tasks"};
  QCoreApplication application_;
  veltra::host::Engine engine_;
};

TEST_F(ChecksumsPlugin, CancelsAlsoWhenTheTaskHasAnsweredAllThatItWasAsked) {
  auto& messenger = engine_.GetMessenger();
  int events = 0;
  std::optional<MethodOutcome> outcome;
  messenger.ListenEvents(checksums::kEventChannel,
                         {[&events](const cw::EncodableValue&) { ++events; }, {}, {}});
  messenger.InvokeMethod(checksums::kMethodChannel, "hash", Write(5000),
                         [&outcome](const MethodOutcome& result) { outcome = result; });
  ASSERT_TRUE(WaitUntil([&events] { return events > 0; }));
  ASSERT_FALSE(outcome);

  WaitUntilIdle(Children().at(0));
  messenger.InvokeMethod(checksums::kMethodChannel, "cancel");
  QCoreApplication::sendPostedEvents();  // before the answers, which wait in the task's channel
  ASSERT_TRUE(WaitUntil([&outcome] { return outcome.has_value(); }));
  EXPECT_EQ(outcome->kind, MethodOutcome::Kind::Error);
  EXPECT_EQ(outcome->code, checksums::kCancelled);
  EXPECT_TRUE(WaitUntil([] { return Children().empty(); }));
}

}  // namespace
}  // namespace tarv::test
