// Every callback of an application's client throws, or sleeps, with a real task at the other end.
// Whoever runs the event loop gets the exception; the next message is served all the same.
#include <gtest/gtest.h>
#include <signal.h>

#include <string>
#include <tuple>

#include "deed.h"
#include "end_to_end/application.h"
#include "events.h"

namespace tarv::test {
namespace {

enum class Callback { kConnected, kResponse, kNotification, kDisconnected, kFailedResponse };
constexpr const char* kCallbacks[] = {"OnConnected", "AResponse", "ANotification", "OnDisconnected",
                                      "AFailedResponse"};

using Case = std::tuple<Callback, Deed>;

class CallbackThat : public EndToEndTest,
                     public RunsEvents,
                     public testing::WithParamInterface<Case> {
 protected:
  static bool Throws() { return std::get<Deed>(GetParam()) == Deed::kThrows; }

  void Happen(Callback callback) {
    if (callback != std::get<Callback>(GetParam()) || done_) {
      return;
    }
    done_ = true;
    Do(std::get<Deed>(GetParam()));
  }

  void Prepare(vorpc::IClient& client) {
    client.OnConnected([this](const OptionalError&) { Happen(Callback::kConnected); });
    client.OnDisconnected([this](const OptionalError&) { Happen(Callback::kDisconnected); });
    client.OnNotify("early", [this](const auto&) { Happen(Callback::kNotification); });
    client.SendRequest("echo", 1, [this](const Response&) { Happen(Callback::kResponse); });
    client.SendRequest("hold", {}, [this](const Response& response) {
      held_answers_ += response.IsError() ? 1 : 0;
      Happen(Callback::kFailedResponse);
    });
    client.Run();
  }

  bool done_ = false;
  int held_answers_ = 0;
};

INSTANTIATE_TEST_SUITE_P(Each, CallbackThat,
                         testing::Combine(testing::Values(Callback::kConnected, Callback::kResponse,
                                                          Callback::kNotification,
                                                          Callback::kDisconnected,
                                                          Callback::kFailedResponse),
                                          testing::Values(Deed::kThrows, Deed::kSleeps)),
                         [](const auto& test) {
                           return NameOf(
                               kCallbacks[static_cast<int>(std::get<Callback>(test.param))],
                               std::get<Deed>(test.param));
                         });

TEST_P(CallbackThat, LetsTheNextMessageBeServed) {
  const auto connection = Start();
  Prepare(*connection->client);
  const Callback callback = std::get<Callback>(GetParam());
  if (callback == Callback::kDisconnected || callback == Callback::kFailedResponse) {
    ASSERT_TRUE(RunUntil([&] { return connection->client->IsConnected(); }));
    kill(Children().at(0), SIGKILL);
    ASSERT_TRUE(RunUntil([this] { return done_ && held_answers_ == 1; }));
    EXPECT_TRUE(WaitUntil([] { return Children().empty(); }));
  } else {
    ASSERT_TRUE(RunUntil([this] { return done_; }));
    EXPECT_EQ(connection->Ask("echo", 2), cw::EncodableValue(2));
  }
  EXPECT_EQ(thrown_, Throws() ? 1 : 0);
  EXPECT_EQ(StartConnected()->Ask("echo", 3), cw::EncodableValue(3));
}

}  // namespace
}  // namespace tarv::test
