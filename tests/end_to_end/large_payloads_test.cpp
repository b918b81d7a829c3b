// What large payloads cost in memory, by figures that no clock decides.
#include <QEventLoop>
#include <QTimer>
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <limits>
#include <stdexcept>
#include <vector>

#include "application.h"
#include "memory_figures.h"

namespace tarv::test {
namespace {

constexpr std::size_t kMiB = std::size_t{1} << 20U;
constexpr std::size_t kWarmup = 20;
constexpr std::size_t kRounds = 5;
// A reader that other programs keep from reading has the text copied, to wait for it: on a busy
// machine, the best of some attempts is what the road takes by itself.
constexpr std::size_t kAttempts = 4;

cw::EncodableValue MakePayload(std::size_t size) {
  return cw::EncodableValue(std::vector<std::uint8_t>(size, 'x'));
}

class LargePayloads : public EndToEndTest {
 protected:
  // Sends the payload that often, each time from inside the answer to the time before. Keeps none.
  static void Echo(vorpc::IClient& client, const cw::EncodableValue& payload, std::size_t rounds) {
    QEventLoop loop;
    QTimer::singleShot(kPatience, &loop, &QEventLoop::quit);
    std::function<void()> send;
    const std::function<void(const Response&)> on_answer = [&](const Response& response) {
      EXPECT_TRUE(response.HasResult() && *response.GetResult() == payload);
      --rounds > 0 ? send() : loop.quit();
    };
    send = [&] {
      client.SendRequest("echo", payload,
                         [&on_answer](const Response& response) { on_answer(response); });
    };
    send();
    loop.exec();
    ASSERT_EQ(rounds, 0U);
  }

  static std::size_t AskTask(Connection& connection, const std::string& what,
                             const cw::EncodableValue& params = {}) {
    const auto count = connection.Ask(what, params).AsInt64();
    return count ? static_cast<std::size_t>(*count) : throw std::runtime_error("no number");
  }

  // Of both processes.
  static std::size_t CountAllFaults(Connection& connection) {
    return CountFaults() + AskTask(connection, "count faults");
  }

  static std::size_t CountAllFaultsOfValues(Connection& connection, std::size_t size) {
    const std::vector<std::int64_t> params{static_cast<std::int64_t>(size), kRounds};
    return CountFaultsOfValues(size, kRounds) +
           AskTask(connection, "count faults of values", cw::EncodableValue(params));
  }

  // The pages that a round trip costs both processes beyond those that its values cost alone: the
  // request's and the answer's in each.
  static std::size_t CountFaultsOfTheRoad(Connection& connection, std::size_t size) {
    const cw::EncodableValue payload = MakePayload(size);
    Echo(*connection.client, payload, kWarmup);  // what is kept grows to its size
    std::size_t faults = std::numeric_limits<std::size_t>::max();
    for (std::size_t i = 0; i < kAttempts; ++i) {
      const std::size_t before = CountAllFaults(connection);
      Echo(*connection.client, payload, kRounds);
      faults = std::min(faults, CountAllFaults(connection) - before);
    }
    const std::size_t of_values = CountAllFaultsOfValues(connection, size);
    return faults > of_values ? (faults - of_values) / kRounds : 0;
  }
};

TEST_F(LargePayloads, OfAQuarterOfAMebibyteTakeFewPagesBesideThoseOfTheirValues) {
  const auto connection = StartConnected("counter");
  EXPECT_LE(CountFaultsOfTheRoad(*connection, kMiB / 4), 64U);
}

TEST_F(LargePayloads, OfAMebibyteTakeFewPagesBesideThoseOfTheirValues) {
  const auto connection = StartConnected("counter");
  EXPECT_LE(CountFaultsOfTheRoad(*connection, kMiB), 64U);
}

TEST_F(LargePayloads, OfSixteenMebibytesTakeFewPagesBesideThoseOfTheirValues) {
  const auto connection = StartConnected("counter");
  EXPECT_LE(CountFaultsOfTheRoad(*connection, 16 * kMiB), 256U);
}

// Memory is kept for the next payload, and goes when none comes.
TEST_F(LargePayloads, LeaveNothingBehindWhenNoneHasComeForAWhile) {
  const auto connection = StartConnected("counter");
  AskTask(*connection, "count held");
  const std::size_t here = CountHeld();
  const std::size_t there = AskTask(*connection, "count held");
  Echo(*connection->client, MakePayload(kMiB), 3);
  EXPECT_GT(CountHeld(), here + kMiB);
  EXPECT_GT(AskTask(*connection, "count held"), there + kMiB);
  constexpr std::chrono::milliseconds kKeepTime(5500);
  RunEvents(kKeepTime);
  EXPECT_LT(CountHeld(), here + kMiB);
  EXPECT_LT(AskTask(*connection, "count held"), there + kMiB);
}

// The application has the payload, its text and the answer at most, the task the text and two
// values; each text is a third longer than the payload.
TEST_F(LargePayloads, OfSixteenMebibytesAreInMemoryInFewForms) {
  std::size_t here = std::numeric_limits<std::size_t>::max();
  std::size_t there = here;
  for (std::size_t i = 0; i < kAttempts; ++i) {
    const auto connection = StartConnected("counter");
    const std::size_t before = ResetPeakMemory();
    const std::size_t before_there = AskTask(*connection, "peak memory");
    Echo(*connection->client, MakePayload(16 * kMiB), 1);
    here = std::min(here, PeakMemory() - before);
    there = std::min(there, AskTask(*connection, "peak memory") - before_there);
  }
  EXPECT_LT(here, 60 * kMiB);
  EXPECT_LT(there, 78 * kMiB);
}

}  // namespace
}  // namespace tarv::test
