// What a small message costs in memory allocations: a figure that is the same on every machine.
// This program counts the calls of the C library's allocator, of Qt's and the kit's code too.

#include <QEventLoop>
#include <atomic>
#include <cstddef>

#include "application.h"

namespace {

std::atomic<std::size_t> allocations{0};

}  // namespace

extern "C" {
void* __libc_malloc(std::size_t size);                     // NOLINT(bugprone-reserved-identifier)
void* __libc_calloc(std::size_t count, std::size_t size);  // NOLINT(bugprone-reserved-identifier)
void* __libc_realloc(void* memory, std::size_t size);      // NOLINT(bugprone-reserved-identifier)

__attribute__((visibility("default"))) void* malloc(std::size_t size) {
  ++allocations;
  return __libc_malloc(size);
}
__attribute__((visibility("default"))) void* calloc(std::size_t count, std::size_t size) {
  ++allocations;
  return __libc_calloc(count, size);
}
__attribute__((visibility("default"))) void* realloc(void* memory, std::size_t size) {
  ++allocations;
  return __libc_realloc(memory, size);
}
}

namespace tarv::test {
namespace {

class Allocations : public EndToEndTest {
 protected:
  // Makes `count` requests, each from inside the answer to the one before. The number of
  // allocations that this takes.
  static std::size_t CountForRequests(vorpc::IClient& client, int count) {
    const cw::EncodableValue params = cw::EncodableMap{{"n", 1}};
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
    const std::size_t before = allocations;
    send();
    loop.exec();
    return allocations - before;
  }
};

TEST_F(Allocations, AreCounted) {
  const std::size_t before = allocations;
  const QByteArray by_qt(100, 'x');
  const auto by_the_language = std::make_unique<std::string>(100, 'x');
  EXPECT_GE(allocations - before, 3U);
}

// The request's and the answer's way through the application's process. A new allocation on the
// road breaks this test; one that is taken out should lower the bound.
TEST_F(Allocations, OfARequestAndItsAnswerStayWithinTheBound) {
  constexpr std::size_t kBound = 9;
  constexpr int kRequests = 500;
  const auto connection = StartConnected();
  CountForRequests(*connection->client, kRequests);  // buffers and tables grow to their size
  const std::size_t count = CountForRequests(*connection->client, kRequests);
  EXPECT_LE(count, kBound * kRequests) << "allocations for " << kRequests << " requests";
}

}  // namespace
}  // namespace tarv::test
