// What the entries do when there is no memory left at all: not for what they are asked for, and not
// for the line that says so.

#include <gmock/gmock.h>
#include <tarv/tarv_capi.h>

#include <cstdlib>
#include <new>

#include "failing_allocation.h"
#include "kit/service.h"
#include "support/capture.h"
#include "support/log_line.h"

namespace tarv::test {
namespace {

// What `action` writes while no memory is left.
template <class Action>
std::string OutputWithoutMemory(Action&& action) {
  const CaptureStdout output;
  {
    const ExhaustedMemory exhausted;
    action();
  }
  return output.GetText();
}

void InitializeWithoutMemory() {
  const Tables tables;
  _TARVManagerRef* first = nullptr;
  const std::string output = OutputWithoutMemory([&] { first = tables.root.Initialize(); });
  const bool told =
      testing::Matches(IsLogLine("error", "Could not create Runtime Manager on API side."))(output);
  _TARVManagerRef* second = nullptr;
  const std::string later = StdoutOf([&] { second = tables.root.Initialize(); });
  std::_Exit(first == nullptr && told && second == nullptr && later.empty() ? 0 : 1);
}

// In a process of its own, which has made no manager yet: it is made once.
TEST(ExhaustedMemoryDeathTest, MakesInitializeReturnNullForGoodAndSayWhyOnce) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_EXIT(InitializeWithoutMemory(), testing::ExitedWithCode(0), "");
}

class ExhaustedMemoryTest : public ServiceTest {};

TEST_F(ExhaustedMemoryTest, GivesNoClientAndTheLinesAllTheSame) {
  _TARVRpcClientRef* client = nullptr;
  EXPECT_THAT(OutputWithoutMemory([&] { client = tables_.root.CreateRpcClient(manager_); }),
              IsLogLine("error", "Could not create Task Worker on API side."));
  EXPECT_EQ(client, nullptr);
}

TEST_F(ExhaustedMemoryTest, AtAnyPointOfAClientsMakingLeavesNoExceptionToTheCaller) {
  for (int spare = 0; spare < 20; ++spare) {
    _TARVRpcClientRef* client = nullptr;
    const std::string output = StdoutOf([&] {
      const ExhaustedMemory exhausted(spare);
      client = tables_.root.CreateRpcClient(manager_);
    });
    EXPECT_EQ(output.empty(), client != nullptr);
  }
}

TEST_F(ExhaustedMemoryTest, GivesNoIntentManagerAndTheLinesAllTheSame) {
  _TARVIntentManagerRef* intents = nullptr;
  const std::string output =
      OutputWithoutMemory([&] { intents = tables_.root.GetIntentManager(manager_); });
  EXPECT_EQ(intents, nullptr);
  const std::size_t first_line_end = output.find('\n') + 1;
  EXPECT_THAT(output.substr(0, first_line_end),
              IsLogLine("error", "Could not create Intent Manager."));
  EXPECT_THAT(output.substr(first_line_end),
              IsLogLine("error", "Could not create Intent Manager on API side."));
}

TEST_F(ExhaustedMemoryTest, GivesNoServer) {
  _TARVRpcServerRef* server = nullptr;
  EXPECT_EQ(OutputWithoutMemory([&] { server = tables_.root.GetRpcServer(manager_); }), "");
  EXPECT_EQ(server, nullptr);
}

TEST_F(ExhaustedMemoryTest, DoesNotSilenceTheLineAboutAnUnknownManager) {
  EXPECT_THAT(OutputWithoutMemory([&] { tables_.root.CreateRpcClient(nullptr); }),
              IsLogLine("error", "Runtime Manager is not initialized."));
  EXPECT_THAT(OutputWithoutMemory([&] { tables_.root.GetIntentManager(nullptr); }),
              IsLogLine("error", "Runtime Manager is not initialized."));
}

TEST_F(ExhaustedMemoryTest, DoesNotSilenceTheLineAboutANullTable) {
  QuarnResult result = QUARN_RESULT_SUCCESS;
  EXPECT_THAT(OutputWithoutMemory([&] { result = TARVProcTableLoad(nullptr, 72); }),
              IsLogLine("error", "Null table specified."));
  EXPECT_EQ(result, QUARN_RESULT_INVALID_ARGUMENT);
}

}  // namespace
}  // namespace tarv::test
