// The service under load, in want, and beside another of its kind.

#include <fcntl.h>
#include <gmock/gmock.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include "kit/service.h"

namespace tarv::test {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

class Endurance : public ServiceTest {};

// Sanitizers and emulation make a start many times dearer; the leaks it looks for show all the
// same.
int Starts() {
  const char* const wanted = std::getenv("TARV_TEST_STARTS");
  return wanted != nullptr ? std::atoi(wanted) : 2000;
}

TEST_F(Endurance, ThousandsOfStartsAndStopsLeaveNothingBehind) {
  constexpr int kAtOnce = 8;
  const std::size_t descriptors = CountDescriptors();
  for (int done = 0; done < Starts(); done += kAtOnce) {
    std::vector<Client*> clients;
    for (int i = 0; i < kAtOnce; ++i) {
      clients.push_back(&NewClient());
      ASSERT_EQ(clients.back()->Start("idle"), QUARN_RESULT_SUCCESS);
    }
    for (Client* client : clients) {
      ASSERT_TRUE(client->WaitForStart());
      client->Release();
    }
    for (Client* client : clients) {
      ASSERT_TRUE(client->WaitFor(Event::kReleased));
    }
  }
  EXPECT_THAT(Children(), IsEmpty());
  EXPECT_THAT(SocketsBelow(folder_.GetPath()), IsEmpty());
  EXPECT_TRUE(WaitUntil([descriptors] { return CountDescriptors() <= descriptors; }));
}

TEST_F(Endurance, TextOf64MiBGoesBothWaysUnharmed) {
  std::string text(64U << 20, '\0');
  for (std::size_t i = 0; i < text.size(); ++i) {
    text[i] = static_cast<char>(' ' + (i * 2654435761U >> 7) % 95);
  }
  Client& client = NewRunningClient("echo");
  ASSERT_EQ(client.Send(text), QUARN_RESULT_SUCCESS);
  // So much text takes minutes where a sanitizer watches both processes on a busy machine.
  ASSERT_TRUE(WaitUntil([&client] { return client.Count(Event::kMessage) > 0; }, 3 * kPatience));
  EXPECT_TRUE(client.Last(Event::kMessage).text == text);
}

TEST_F(Endurance, TwoProcessesWithTheSameTaskNameDoNotMeet) {
  Client& mine = NewRunningClient("echo");
  const pid_t other = fork();
  if (other == 0) {
    // The other process shares the runtime folder and nothing else.
    execl(TALKER_PROGRAM, TALKER_PROGRAM, nullptr);
    _exit(127);
  }
  for (int i = 0; i < 200; ++i) {
    mine.Send("mine " + std::to_string(i));
  }
  ASSERT_TRUE(mine.WaitForMessages(200));
  int status = 0;
  ASSERT_TRUE(WaitUntil([&] { return waitpid(other, &status, WNOHANG) == other; }));
  EXPECT_EQ(status, 0);
  for (int i = 0; i < 200; ++i) {
    EXPECT_EQ(mine.Messages()[static_cast<std::size_t>(i)], "mine " + std::to_string(i));
  }
}

// Takes every descriptor but a few.
class DescriptorHog {
 public:
  explicit DescriptorHog(std::size_t spare) {
    getrlimit(RLIMIT_NOFILE, &before_);
    const rlimit tight{64, before_.rlim_max};
    setrlimit(RLIMIT_NOFILE, &tight);
    for (int fd = dup(0); fd >= 0; fd = dup(0)) {
      taken_.push_back(fd);
    }
    for (; spare > 0; --spare) {
      close(taken_.back());
      taken_.pop_back();
    }
  }
  ~DescriptorHog() {
    for (const int fd : taken_) {
      close(fd);
    }
    setrlimit(RLIMIT_NOFILE, &before_);
  }
  DescriptorHog(const DescriptorHog&) = delete;
  DescriptorHog& operator=(const DescriptorHog&) = delete;

 private:
  rlimit before_{};
  std::vector<int> taken_;
};

TEST_F(Endurance, WantOfDescriptorsAtAnyPointOfAStartIsReportedAndTheNextStartWorks) {
  for (std::size_t spare = 0; spare < 12; ++spare) {
    SCOPED_TRACE("spare descriptors: " + std::to_string(spare));
    Client& client = NewClient();
    {
      const DescriptorHog hog(spare);
      ASSERT_EQ(client.Start("echo"), QUARN_RESULT_SUCCESS);
      ASSERT_TRUE(client.WaitFor(Event::kStarted));
      RunEvents(std::chrono::milliseconds(20));
    }
    if (client.Last(Event::kStarted).code != 0) {
      EXPECT_NE(client.Last(Event::kStarted).text, "");
    } else if (client.Count(Event::kDisconnect) == 0) {
      client.Send("made it");
      EXPECT_TRUE(WaitUntil([&client] {
        return client.Count(Event::kMessage) + client.Count(Event::kDisconnect) > 0;
      }));
    }
  }
  Client& next = NewRunningClient("echo");
  next.Send("and it works");
  ASSERT_TRUE(next.WaitForMessages(1));
  EXPECT_THAT(next.Messages(), ElementsAre("and it works"));
}

TEST_F(Endurance, WantOfDescriptorsInTheMiddleOfAConnectionIsSurvived) {
  Client& client = NewRunningClient("echo");
  client.Send("before");
  ASSERT_TRUE(client.WaitForMessages(1));
  {
    const DescriptorHog hog(0);
    client.Send("without descriptors");
    ASSERT_TRUE(client.WaitForMessages(2));
    Client& other = NewClient();
    other.Start("echo");
    ASSERT_TRUE(other.WaitFor(Event::kStarted));
    EXPECT_EQ(other.Last(Event::kStarted).code, -32603);
  }
  client.Send("after");
  ASSERT_TRUE(client.WaitForMessages(3));
  NewRunningClient("echo");
}

}  // namespace
}  // namespace tarv::test
