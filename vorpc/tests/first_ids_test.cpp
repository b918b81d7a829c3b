// A program of its own: the first request of a process can be seen only once, in a fresh process.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vorpc/client.h>

#include <array>
#include <set>
#include <string>

#include "recorder.h"

namespace vorpc::test_support {
namespace {

std::string SendFirstRequest() {
  Recorder recorder;
  const auto client = IOwnedClient::Create(recorder.Send());
  client->Run();
  client->SetStarted();
  return recorder.CountSent() == 1 ? recorder.GetLast().GetRequest()->id.value : "nothing";
}

// The id of the first request of a copy of this process, which has sent none so far.
std::string FirstIdOfACopy() {
  std::array<int, 2> ends{};
  if (pipe(ends.data()) != 0) {
    return "no pipe";
  }
  const pid_t copy = fork();
  if (copy == 0) {
    const std::string id = SendFirstRequest();
    _exit(write(ends[1], id.data(), id.size()) == static_cast<ssize_t>(id.size()) ? 0 : 1);
  }
  close(ends[1]);
  std::array<char, 64> id{};
  const ssize_t size = read(ends[0], id.data(), id.size());
  close(ends[0]);
  waitpid(copy, nullptr, 0);
  return {id.data(), size > 0 ? static_cast<std::size_t>(size) : 0};
}

// One test, so that the order of tests plays no part.
TEST(FirstRequestId, IsNumberOneUnderAPrefixThatDiffersFromProcessToProcess) {
  std::set<std::string> ids;
  for (int i = 0; i < 8; ++i) {
    const std::string id = FirstIdOfACopy();
    EXPECT_THAT(id, testing::MatchesRegex("id[1-9][0-9]*_1"));
    ids.insert(id);
  }
  EXPECT_GT(ids.size(), 1U) << "eight processes have one prefix: " << *ids.begin();
  EXPECT_THAT(SendFirstRequest(), testing::MatchesRegex("id[1-9][0-9]*_1"));
}

}  // namespace
}  // namespace vorpc::test_support
