// A program of its own, with one test: the first request of a process can be seen only once.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <vorpc/client.h>

#include "recorder.h"

namespace vorpc::test_support {
namespace {

TEST(FirstRequestId, OfAProcessIsNumberOne) {
  Recorder recorder;
  const auto client = IOwnedClient::Create(recorder.Send());
  client->Run();
  client->SetStarted();
  ASSERT_EQ(recorder.CountSent(), 1U);
  EXPECT_THAT(recorder.GetLast().GetRequest()->id.value, testing::MatchesRegex("id[1-9][0-9]*_1"));
}

}  // namespace
}  // namespace vorpc::test_support
