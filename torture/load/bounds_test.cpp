// Messages at each bound, one byte under and one byte over it, and one without an end.

#include <RuntimeManager/Error.h>
#include <gmock/gmock.h>

#include "kit/service.h"
#include "load.h"

namespace tarv::test {
namespace {

using testing::AllOf;
using testing::HasSubstr;

// Of an envelope without its text: {"data":""}
constexpr std::size_t kEnvelope = 11;

struct Bound {
  const char* name;
  std::size_t bytes;
};

void PrintTo(const Bound& bound, std::ostream* stream) { *stream << bound.name; }

// A line that one read takes, one that several take, and one that goes the way of large texts.
constexpr Bound kBounds[] = {{"small", 1'000}, {"medium", 100'000}, {"large", 3'000'000}};

class MessageBound : public ServiceTest, public testing::WithParamInterface<Bound> {
 protected:
  static void ExpectTooLong(const Client& client) {
    ASSERT_TRUE(client.WaitFor(Event::kDisconnect));
    const Event& end = client.Last(Event::kDisconnect);
    EXPECT_EQ(end.code, RuntimeManager::Error::kMessageTooLong);
    EXPECT_THAT(end.text, AllOf(HasSubstr(std::to_string(GetParam().bytes) + " bytes"),
                                HasSubstr("RUNTIME_MANAGER_MAX_MESSAGE")));
    EXPECT_EQ(client.Count(Event::kDisconnect), 1U);
  }

  const ScopedVariable most_{"RUNTIME_MANAGER_MAX_MESSAGE", std::to_string(GetParam().bytes)};
};

TEST_P(MessageBound, IsForWhatTheApplicationSends) {
  for (const std::size_t size : {GetParam().bytes - 1, GetParam().bytes}) {
    Client& client = NewRunningClient("echo");
    ASSERT_EQ(client.Send(std::string(size - kEnvelope, 'x')), QUARN_RESULT_SUCCESS);
    ASSERT_TRUE(client.WaitForMessages(1)) << size;
    EXPECT_EQ(client.Messages().front().size(), size - kEnvelope);
  }
  Client& other = NewRunningClient("echo");
  Client& client = NewRunningClient("echo");
  client.Send(std::string(GetParam().bytes + 1 - kEnvelope, 'x'));
  ExpectTooLong(client);
  other.Send("still served");
  EXPECT_TRUE(other.WaitForMessages(1));
}

TEST_P(MessageBound, IsForWhatTheTaskSends) {
  for (const std::size_t size : {GetParam().bytes - 1, GetParam().bytes}) {
    const ScopedVariable line("LOADED", "line " + std::to_string(size));
    Client& client = NewRunningClient("loaded");
    ASSERT_TRUE(client.WaitForMessages(1)) << size;
    EXPECT_EQ(client.Messages().front().size(), size - kEnvelope);
    EXPECT_EQ(client.Count(Event::kDisconnect), 0U);
  }
  const ScopedVariable line("LOADED", "line " + std::to_string(GetParam().bytes + 1));
  Client& client = NewRunningClient("loaded");
  ExpectTooLong(client);
  EXPECT_EQ(client.Count(Event::kMessage), 0U);
}

TEST_P(MessageBound, IsTheMostMemoryForALineWithoutAnEnd) {
  Client& other = NewRunningClient("echo");
  const PeakGrowth growth;
  const ScopedVariable endless("LOADED", "endless");
  Client& client = NewRunningClient("loaded");
  ExpectTooLong(client);
  EXPECT_EQ(client.Count(Event::kMessage), 0U);
  EXPECT_LE(growth.Get("a line without an end"), 2 * GetParam().bytes + 8 * kMiB);
  other.Send("still served");
  EXPECT_TRUE(other.WaitForMessages(1));
}

INSTANTIATE_TEST_SUITE_P(Each, MessageBound, testing::ValuesIn(kBounds),
                         [](const auto& test) { return std::string(test.param.name); });

}  // namespace
}  // namespace tarv::test
