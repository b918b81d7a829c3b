// What a small message costs in memory allocations: a figure that is the same on every machine.
#include "allocations.h"

#include <QEventLoop>
#include <cstddef>
#include <cstdint>
#include <stdexcept>

#include "application.h"

namespace tarv::test {
namespace {

constexpr std::size_t kRequests = 500;
constexpr std::size_t kGrowth = 10;

// The two processes of a connection; the task tells its own number.
class Allocations : public EndToEndTest {
 protected:
  // Makes kRequests requests, each from inside the answer to the one before. The number of
  // allocations that this takes here.
  static std::size_t CountForRequests(vorpc::IClient& client) {
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
    const std::size_t before = CountAllocations();
    send();
    loop.exec();
    return CountAllocations() - before;
  }

  static std::size_t CountInTask(Connection& connection) {
    const auto count = connection.Ask("count allocations").AsInt64();
    return count ? static_cast<std::size_t>(*count) : throw std::runtime_error("no number");
  }
};

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
  CountForRequests(*connection->client);  // buffers and tables grow to their size
  const std::size_t count = CountForRequests(*connection->client);
  EXPECT_LE(count, kBound * kRequests + kGrowth) << "for " << kRequests << " requests";
}

// The same through the task's process, whose number comes by one more request.
TEST_F(Allocations, OfARequestAndItsAnswerStayWithinTheBoundInTheTask) {
  constexpr std::size_t kBound = 6;
  const auto connection = StartConnected("counter");
  CountForRequests(*connection->client);
  const std::size_t before = CountInTask(*connection);
  CountForRequests(*connection->client);
  const std::size_t count = CountInTask(*connection) - before;
  EXPECT_GE(count, kRequests);
  EXPECT_LE(count, kBound * kRequests + kGrowth) << "for " << kRequests << " requests";
}

}  // namespace
}  // namespace tarv::test
