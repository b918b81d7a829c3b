// What callers are told when memory runs out while an object is made.

#include <gmock/gmock.h>
#include <tarv/tarv_capi.h>

#include <algorithm>
#include <cstdlib>
#include <thread>
#include <vector>

#include "failing_allocation.h"
#include "kit/service.h"
#include "support/capture.h"
#include "support/log_line.h"

namespace tarv::test {
namespace {

using testing::ElementsAre;

// Runs `action` with its n-th allocation failing.
template <class Action>
std::string OutputWithFailingAllocation(int n, Action&& action) {
  CaptureStdout output;
  allocations_until_failure = n;
  action();
  allocations_until_failure = -1;
  return output.GetText();
}

// Each in a process of its own, which has made no manager yet: there is one in a process, made
// once.
class ManagerCreationDeathTest : public testing::Test {
 protected:
  ManagerCreationDeathTest() { GTEST_FLAG_SET(death_test_style, "threadsafe"); }
};

void FailToInitialize() {
  const Tables tables;
  _TARVManagerRef* first = nullptr;
  const std::string output =
      OutputWithFailingAllocation(0, [&] { first = tables.root.Initialize(); });
  const bool told =
      output.rfind("[error] src/manager.cpp:", 0) == 0 &&
      output.find(" Could not create Runtime Manager on API side.\n") != std::string::npos;
  _TARVManagerRef* second = nullptr;
  const std::string later = StdoutOf([&] { second = tables.root.Initialize(); });
  std::_Exit(first == nullptr && told && second == nullptr && later.empty() ? 0 : 1);
}

TEST_F(ManagerCreationDeathTest, ThatFailsMakesEveryInitializeReturnNullAndSaysWhyOnce) {
  EXPECT_EXIT(FailToInitialize(), testing::ExitedWithCode(0), "");
}

void InitializeByThreads() {
  const Tables tables;
  std::vector<_TARVManagerRef*> seen(8);
  std::vector<std::thread> threads;
  for (auto& handle : seen) {
    threads.emplace_back([&tables, &handle] { handle = tables.root.Initialize(); });
  }
  for (auto& thread : threads) {
    thread.join();
  }
  const bool same = std::count(seen.begin(), seen.end(), seen[0]) == 8;
  std::_Exit(same && seen[0] != nullptr ? 0 : 1);
}

TEST_F(ManagerCreationDeathTest, IsOneForThreadsThatInitializeAtOnce) {
  EXPECT_EXIT(InitializeByThreads(), testing::ExitedWithCode(0), "");
}

class CreationFailure : public ServiceTest {
 protected:
  // Each with its line break.
  static std::vector<std::string> Lines(const std::string& output) {
    std::vector<std::string> lines;
    for (std::size_t begin = 0, end = 0; begin < output.size(); begin = end) {
      end = std::min(output.find('\n', begin), output.size() - 1) + 1;
      lines.push_back(output.substr(begin, end - begin));
    }
    return lines;
  }
};

TEST_F(CreationFailure, OfAClientAtAnyAllocationGivesNullAndALine) {
  int failures = 0;
  for (int n = 0; n < 20; ++n) {
    _TARVRpcClientRef* client = nullptr;
    const std::string output =
        OutputWithFailingAllocation(n, [&] { client = tables_.root.CreateRpcClient(manager_); });
    if (client == nullptr) {
      ++failures;
      ASSERT_FALSE(output.empty());
      EXPECT_THAT(Lines(output).back(),
                  IsLogLine("error", "Could not create Task Worker on API side."));
    } else {
      EXPECT_EQ(output, "");
    }
  }
  EXPECT_GT(failures, 3);
}

TEST_F(CreationFailure, OfTheClientObjectItselfAddsItsOwnLine) {
  bool seen = false;
  for (int n = 0; n < 20; ++n) {
    const std::string output =
        OutputWithFailingAllocation(n, [&] { tables_.root.CreateRpcClient(manager_); });
    const std::vector<std::string> lines = Lines(output);
    seen = seen || (lines.size() == 2 && testing::Matches(IsLogLine(
                                             "error", "Could not create Task Worker."))(lines[0]));
  }
  EXPECT_TRUE(seen);
}

TEST_F(CreationFailure, OfTheIntentManagerGivesNullAndALineOfEachLayer) {
  _TARVIntentManagerRef* intents = nullptr;
  const std::string output =
      OutputWithFailingAllocation(0, [&] { intents = tables_.root.GetIntentManager(manager_); });
  EXPECT_EQ(intents, nullptr);
  EXPECT_THAT(Lines(output),
              ElementsAre(IsLogLine("error", "Could not create Intent Manager."),
                          IsLogLine("error", "Could not create Intent Manager on API side.")));
  EXPECT_NE(tables_.root.GetIntentManager(manager_), nullptr);
}

TEST_F(CreationFailure, OfTheServerGivesNullWithoutAWord) {
  _TARVRpcServerRef* server = nullptr;
  EXPECT_EQ(OutputWithFailingAllocation(0, [&] { server = tables_.root.GetRpcServer(manager_); }),
            "");
  EXPECT_EQ(server, nullptr);
  EXPECT_NE(tables_.root.GetRpcServer(manager_), nullptr);
}

}  // namespace
}  // namespace tarv::test
