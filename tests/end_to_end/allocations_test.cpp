// What a small message costs in memory allocations, and in descriptors that are looked at while it is
// waited for: figures that are the same on every machine.
#include "allocations.h"

#include <QEventLoop>
#include <cstddef>
#include <cstdint>
#include <stdexcept>

#include "application.h"
#include "watched.h"

namespace tarv::test {
namespace {

constexpr std::size_t kRequests = 500;
constexpr std::size_t kGrowth = 10;

// The two processes of a connection; the task tells its own numbers.
class CostOfRequests : public EndToEndTest {
 protected:
  // Makes kRequests requests, each from inside the answer to the one before. By how much
  // `count_all` grows here for them.
  static std::size_t CountForRequests(vorpc::IClient& client, std::size_t (*count_all)()) {
    const cw::EncodableValue params = cw::EncodableMap{{"n", 1}};
    std::size_t count = kRequests;
    QEventLoop loop;
    std::function<void()> send;
    const std::function<void(const Response&)> on_answer = [&](const Response& response) {
      EXPECT_TRUE(response.HasResult());
      --count > 0 ? send() : loop.quit();
    };
    send = [&] {
      client.SendRequest("echo", params,
                         [&on_answer](const Response& response) { on_answer(response); });
    };
    const std::size_t before = count_all();
    send();
    loop.exec();
    return count_all() - before;
  }

  static std::size_t CountInTask(Connection& connection, const std::string& what) {
    const auto count = connection.Ask(what).AsInt64();
    return count ? static_cast<std::size_t>(*count) : throw std::runtime_error("no number");
  }
};

using Allocations = CostOfRequests;
using WatchedDescriptors = CostOfRequests;

TEST_F(Allocations, AreCounted) {
  const std::size_t before = CountAllocations();
  const QByteArray by_qt(100, 'x');
  const auto by_the_language = std::make_unique<std::string>(100, 'x');
  EXPECT_GE(CountAllocations() - before, 3U);
}

// The request's and the answer's way through the application's process. A new allocation on the
// road breaks this test; one that is taken out should lower the bound. What not every request
// takes, as the growth of a buffer, has room of its own.
TEST_F(Allocations, OfARequestAndItsAnswerStayWithinTheBoundInTheApplication) {
  constexpr std::size_t kBound = 6;
  const auto connection = StartConnected("counter");
  // Buffers and tables grow to their size first.
  CountForRequests(*connection->client, &CountAllocations);
  const std::size_t count = CountForRequests(*connection->client, &CountAllocations);
  EXPECT_LE(count, kBound * kRequests + kGrowth) << "for " << kRequests << " requests";
}

// The same through the task's process, whose number comes by one more request.
TEST_F(Allocations, OfARequestAndItsAnswerStayWithinTheBoundInTheTask) {
  constexpr std::size_t kBound = 6;
  const auto connection = StartConnected("counter");
  CountForRequests(*connection->client, &CountAllocations);
  const std::size_t before = CountInTask(*connection, "count allocations");
  CountForRequests(*connection->client, &CountAllocations);
  const std::size_t count = CountInTask(*connection, "count allocations") - before;
  EXPECT_GE(count, kRequests);
  EXPECT_LE(count, kBound * kRequests + kGrowth) << "for " << kRequests << " requests";
}

TEST_F(WatchedDescriptors, AreCounted) {
  const std::size_t before = CountWatched();
  QEventLoop().processEvents();
  EXPECT_GT(CountWatched() - before, 0U);
}

// An event loop asks the system about every descriptor of its own for every message. Three are
// needed: the connection's, that which wakes the event loop, and one for all that is seldom ready.
TEST_F(WatchedDescriptors, OfARequestAndItsAnswerStayWithinTheBoundInTheApplication) {
  constexpr std::size_t kBound = 3;
  const auto connection = StartConnected("counter");
  CountForRequests(*connection->client, &CountWatched);
  const std::size_t count = CountForRequests(*connection->client, &CountWatched);
  EXPECT_LE(count, kBound * (kRequests + kGrowth)) << "for " << kRequests << " requests";
}

// One more: the embedder's, which hears the signals that end a task.
TEST_F(WatchedDescriptors, OfARequestAndItsAnswerStayWithinTheBoundInTheTask) {
  constexpr std::size_t kBound = 4;
  const auto connection = StartConnected("counter");
  CountForRequests(*connection->client, &CountWatched);
  const std::size_t before = CountInTask(*connection, "count watched");
  CountForRequests(*connection->client, &CountWatched);
  const std::size_t count = CountInTask(*connection, "count watched") - before;
  EXPECT_GE(count, kRequests);
  EXPECT_LE(count, kBound * (kRequests + kGrowth)) << "for " << kRequests << " requests";
}

}  // namespace
}  // namespace tarv::test
