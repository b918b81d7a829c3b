// Client and server against each other, on one thread and on several.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <vorpc/client.h>
#include <vorpc/server.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <random>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "recorder.h"
#include "support/capture.h"
#include "support/random_value.h"

namespace vorpc::test_support {
namespace {

using cw::test_support::RandomValues;
using cw::test_support::TestSeed;
using testing::ElementsAre;
using Error = Message::Error;

void Echo(const std::string& /*method*/, const cw::EncodableValue& params,
          std::unique_ptr<IReply>&& reply) {
  reply->SendResult(params);
}

// A client and a server whose messages travel as text, on one thread, when Settle is called.
class DirectConversation : public testing::Test {
 protected:
  DirectConversation() {
    server_->OnRequest("echo", Echo);
    client_->SetStarted();
  }

  void Connect() {
    server_->Run();
    client_->Run();
    Settle();
  }

  // Delivers until nothing is on its way.
  void Settle() {
    while (!texts_.empty()) {
      const auto [to_server, text] = texts_.front();
      texts_.pop_front();
      if (to_server) {
        server_->Receive(Message::FromBase64(text));
      } else {
        client_->Receive(Message::FromBase64(text));
      }
    }
  }

  std::function<void(Message&&)> SendTo(bool server) {
    return [this, server](Message&& message) { texts_.emplace_back(server, message.ToBase64()); };
  }

  std::deque<std::pair<bool, std::string>> texts_;
  std::shared_ptr<IOwnedClient> client_ = IOwnedClient::Create(SendTo(true));
  std::shared_ptr<IOwnedServer> server_ = IOwnedServer::Create(SendTo(false));
};

TEST_F(DirectConversation, ConnectsWhicheverEndRunsFirst) {
  client_->Run();
  Settle();
  EXPECT_FALSE(client_->IsConnected());
  server_->Run();
  Settle();
  EXPECT_TRUE(client_->IsConnected());
}

TEST_F(DirectConversation, AnswersRequestsMadeBeforeAndAfterConnecting) {
  const cw::EncodableValue second(cw::EncodableMap{{"a", cw::EncodableList{1, 2.5, "x"}}});
  std::vector<cw::EncodableValue> results;
  const auto keep = [&results](const Message::Response& response) {
    results.push_back(*response.GetResult());
  };
  client_->SendRequest("echo", 1, keep);
  Connect();
  client_->SendRequest("echo", second, keep);
  Settle();
  EXPECT_THAT(results, ElementsAre(cw::EncodableValue(1), second));
}

TEST_F(DirectConversation, ReportsAnUnknownMethodToTheCaller) {
  Connect();
  std::optional<Message::Response> seen;
  client_->SendRequest("ping", {}, [&seen](const auto& response) { seen = response; });
  Settle();
  ASSERT_TRUE(seen && seen->IsError());
  EXPECT_EQ(*seen->GetError(), Error(-32601, "Unknown method 'ping()'"));
}

TEST_F(DirectConversation, CarriesNotificationsBothWays) {
  std::vector<std::string> heard;
  server_->OnNotify("to server", [&](const auto& notification) {
    heard.push_back("server " + *notification.params.AsString());
    server_->SendNotify("to client", notification.params);
  });
  client_->OnNotify("to client", [&heard](const auto& notification) {
    heard.push_back("client " + *notification.params.AsString());
  });
  Connect();
  client_->SendNotify("to server", "hello");
  Settle();
  EXPECT_THAT(heard, ElementsAre("server hello", "client hello"));
}

TEST_F(DirectConversation, AnswersAChainOfRequestsMadeInsideCallbacks) {
  Connect();
  int answers = 0;
  const std::function<void(const Message::Response&)> again = [&](const Message::Response&) {
    if (++answers < 50) {
      client_->SendRequest("echo", answers, std::function<void(const Message::Response&)>(again));
    }
  };
  client_->SendRequest("echo", 0, std::function<void(const Message::Response&)>(again));
  Settle();
  EXPECT_EQ(answers, 50);
}

TEST_F(DirectConversation, EchoesRandomValues) {
  const std::uint64_t seed = TestSeed(8080);
  SCOPED_TRACE("TARV_TEST_SEED=" + std::to_string(seed));
  Connect();
  RandomValues values(seed);
  for (int i = 0; i < 500; ++i) {
    const cw::EncodableValue value = values.Next();
    std::optional<cw::EncodableValue> echo;
    client_->SendRequest("echo", value, [&echo](const Message::Response& response) {
      echo = *response.GetResult();
    });
    Settle();
    ASSERT_EQ(echo, value);
  }
}

// Carries texts to their receiver on threads of its own, late and in any order.
class UnorderedPipe {
 public:
  UnorderedPipe(std::uint64_t seed, std::function<void(Message&&)> deliver)
      : random_(seed), deliver_(std::move(deliver)) {
    for (int i = 0; i < 2; ++i) {
      threads_.emplace_back([this] { Work(); });
    }
  }
  ~UnorderedPipe() { Stop(); }

  void Send(const Message& message) {
    const std::lock_guard lock(mutex_);
    texts_.push_back(message.ToBase64());
    changed_.notify_one();
  }

  // Drops what is on its way; after that nothing is delivered.
  void Stop() {
    {
      const std::lock_guard lock(mutex_);
      stopped_ = true;
      changed_.notify_all();
    }
    for (std::thread& thread : threads_) {
      thread.join();
    }
    threads_.clear();
  }

 private:
  void Work() {
    while (auto text = Take()) {
      deliver_(Message::FromBase64(*text));
    }
  }

  std::optional<std::string> Take() {
    std::unique_lock lock(mutex_);
    changed_.wait(lock, [this] { return stopped_ || !texts_.empty(); });
    if (stopped_) {
      return std::nullopt;
    }
    if (random_() % 4 == 0) {
      lock.unlock();
      std::this_thread::sleep_for(std::chrono::microseconds(50));
      lock.lock();
      if (stopped_ || texts_.empty()) {
        return stopped_ ? std::nullopt : std::optional<std::string>("");
      }
    }
    const auto chosen = texts_.begin() + static_cast<std::ptrdiff_t>(random_() % texts_.size());
    std::string text = std::move(*chosen);
    texts_.erase(chosen);
    return text;
  }

  std::mt19937_64 random_;
  std::function<void(Message&&)> deliver_;
  std::mutex mutex_;
  std::condition_variable changed_;
  std::deque<std::string> texts_;
  bool stopped_ = false;
  std::vector<std::thread> threads_;
};

// A client and a server with an unordered pipe each way.
class UnorderedConversation {
 public:
  explicit UnorderedConversation(std::uint64_t seed)
      : to_server_(seed, [this](Message&& message) { Deliver(*server_, std::move(message)); }),
        to_client_(seed + 1, [this](Message&& message) { Deliver(*client_, std::move(message)); }) {
    server_->OnRequest("echo", Echo);
    client_->SetStarted();
  }

  void Stop() {
    to_server_.Stop();
    to_client_.Stop();
  }

  IOwnedClient& GetClient() { return *client_; }
  IOwnedServer& GetServer() { return *server_; }

 private:
  // The pipe hands out an empty message when another thread was faster.
  template <class End>
  static void Deliver(End& end, Message&& message) {
    if (!message.IsEmpty()) {
      end.Receive(std::move(message));
    }
  }

  std::shared_ptr<IOwnedClient> client_ =
      IOwnedClient::Create([this](Message&& message) { to_server_.Send(message); });
  std::shared_ptr<IOwnedServer> server_ =
      IOwnedServer::Create([this](Message&& message) { to_client_.Send(message); });
  UnorderedPipe to_server_;
  UnorderedPipe to_client_;
};

bool WaitFor(const std::function<bool()>& condition) {
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(60);
  while (!condition()) {
    if (std::chrono::steady_clock::now() > deadline) {
      return false;
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
  return true;
}

TEST(UnorderedConversation, AnswersEveryRequestOnceWithItsOwnResult) {
  const std::uint64_t seed = TestSeed(424242);
  SCOPED_TRACE("TARV_TEST_SEED=" + std::to_string(seed));
  constexpr int kThreads = 3;
  constexpr int kRequests = 200;
  std::atomic<int> right = 0;
  std::atomic<int> wrong = 0;
  UnorderedConversation conversation(seed);
  std::vector<std::thread> threads;
  for (int thread = 0; thread < kThreads; ++thread) {
    threads.emplace_back([&, thread] {
      for (int i = 0; i < kRequests; ++i) {
        const cw::EncodableValue params(thread * kRequests + i);
        conversation.GetClient().SendRequest(
            "echo", params, [&right, &wrong, params](const Message::Response& response) {
              (response.HasResult() && *response.GetResult() == params ? right : wrong)++;
            });
        if (i == 50) {
          conversation.GetClient().Run();
          conversation.GetServer().Run();
        }
      }
    });
  }
  for (std::thread& thread : threads) {
    thread.join();
  }
  EXPECT_TRUE(WaitFor([&] { return right + wrong == kThreads * kRequests; }));
  EXPECT_EQ(right, kThreads * kRequests);
  conversation.Stop();
}

TEST(UnorderedConversation, AnswersEveryRequestOnceWhenTheTransportGoes) {
  const std::uint64_t seed = TestSeed(1001);
  for (std::uint64_t round = 0; round < 20; ++round) {
    SCOPED_TRACE("TARV_TEST_SEED=" + std::to_string(seed) + " round " + std::to_string(round));
    constexpr int kRequests = 100;
    std::vector<std::atomic<int>> answers(kRequests);
    std::atomic<int> ends = 0;
    UnorderedConversation conversation(seed + 2 * round);
    conversation.GetServer().Run();
    conversation.GetClient().Run();
    ASSERT_TRUE(WaitFor([&] { return conversation.GetClient().IsConnected(); }));
    conversation.GetClient().OnDisconnected([&ends](const auto&) { ++ends; });
    for (auto& answer : answers) {
      conversation.GetClient().SendRequest("echo", {}, [&answer](const auto&) { ++answer; });
    }
    std::this_thread::sleep_for(std::chrono::microseconds(100 * round));
    // Responses that come too late are logged.
    tarv::test::StdoutOf([&conversation] {
      conversation.GetClient().Disconnect(Error(-1, "gone"));
      conversation.Stop();
    });
    EXPECT_EQ(ends, 1);
    for (const auto& answer : answers) {
      EXPECT_EQ(answer, 1);
    }
  }
}

// --- Races ---

// Runs both at once.
void Race(const std::function<void()>& a, const std::function<void()>& b) {
  std::atomic<int> ready = 0;
  const auto run = [&ready](const std::function<void()>& action) {
    ++ready;
    while (ready < 2) {
      std::this_thread::yield();
    }
    action();
  };
  std::thread other([&run, &b] { run(b); });
  run(a);
  other.join();
}

// The same without the log lines that only one of the two orders gives.
void QuietRace(const std::function<void()>& a, const std::function<void()>& b) {
  tarv::test::StdoutOf([&a, &b] { Race(a, b); });
}

constexpr int kRounds = 100;

struct RacingClient {
  RacingClient() {
    client->OnConnected([this](const auto& error) { ++(error ? failures : successes); });
    client->OnDisconnected([this](const auto&) { ++ends; });
  }

  void Start() const {
    client->Run();
    client->SetStarted();
  }
  void Refuse(std::size_t index) const {
    client->Receive(
        Message::CreateError(recorder.GetSent().at(index).GetRequest()->id, -1, "busy"));
  }
  Message AnswerTo(std::size_t index) const {
    return Message::CreateResponse(recorder.GetSent().at(index).GetRequest()->id, {});
  }

  Recorder recorder;
  std::shared_ptr<IOwnedClient> client = IOwnedClient::Create(recorder.Send());
  std::atomic<int> successes = 0;
  std::atomic<int> failures = 0;
  std::atomic<int> ends = 0;
};

TEST(ClientRace, DisconnectAndAResponseAnswerARequestOnce) {
  for (int round = 0; round < kRounds; ++round) {
    RacingClient racing;
    racing.Start();
    racing.client->Receive(racing.AnswerTo(0));
    std::atomic<int> answers = 0;
    racing.client->SendRequest("a", {}, [&answers](const auto&) { ++answers; });
    QuietRace([&racing] { racing.client->Disconnect({}); },
              [&racing] { racing.client->Receive(racing.AnswerTo(1)); });
    ASSERT_EQ(answers, 1);
    ASSERT_EQ(racing.ends, 1);
  }
}

TEST(ClientRace, DisconnectAndTheSuccessOfTheHandshakeGiveOneOutcome) {
  for (int round = 0; round < kRounds; ++round) {
    RacingClient racing;
    racing.Start();
    QuietRace([&racing] { racing.client->Disconnect({}); },
              [&racing] { racing.client->Receive(racing.AnswerTo(0)); });
    ASSERT_EQ(racing.successes + racing.failures, 1);
    ASSERT_EQ(racing.ends, racing.successes);
    ASSERT_TRUE(racing.client->HasConnectionFailed());
  }
}

TEST(ClientRace, DisconnectAndTheStartOfTheHandshakeAlwaysEndInFailure) {
  for (int round = 0; round < kRounds; ++round) {
    RacingClient racing;
    racing.client->Run();
    Race([&racing] { racing.client->Disconnect({}); }, [&racing] { racing.client->SetStarted(); });
    ASSERT_TRUE(racing.client->HasConnectionFailed());
    ASSERT_EQ(racing.failures, 1);
    ASSERT_EQ(racing.successes, 0);
  }
}

TEST(ClientRace, TheLastAttemptsRefusalAndItsSuccessGiveOneOutcome) {
  for (int round = 0; round < kRounds; ++round) {
    RacingClient racing;
    racing.Start();
    tarv::test::StdoutOf([&racing] {
      for (std::size_t attempt = 0; attempt < 3; ++attempt) {
        racing.Refuse(attempt);
      }
    });
    QuietRace([&racing] { racing.Refuse(3); },
              [&racing] { racing.client->Receive(racing.AnswerTo(3)); });
    ASSERT_EQ(racing.successes + racing.failures, 1);
    ASSERT_EQ(racing.client->IsConnected(), racing.successes == 1);
    ASSERT_EQ(racing.client->HasConnectionFailed(), racing.failures == 1);
  }
}

TEST(ClientRace, ASubscriberHearsTheOutcomeOnceHoweverLateItComes) {
  for (int round = 0; round < kRounds; ++round) {
    RacingClient racing;
    racing.Start();
    std::atomic<int> calls = 0;
    Race([&racing] { racing.client->Receive(racing.AnswerTo(0)); },
         [&] { racing.client->OnConnected([&calls](const auto&) { ++calls; }); });
    ASSERT_EQ(calls, 1);
  }
}

TEST(ClientRace, RunAndStartSendOneConnectRequest) {
  for (int round = 0; round < kRounds; ++round) {
    RacingClient racing;
    Race([&racing] { racing.client->Run(); }, [&racing] { racing.client->SetStarted(); });
    ASSERT_EQ(racing.recorder.CountSent(), 1U);
  }
}

TEST(ClientRace, LettingGoAndDeliveringToACopyOfTheReferenceAreSafe) {
  for (int round = 0; round < kRounds; ++round) {
    RacingClient racing;
    racing.Start();
    racing.client->Receive(racing.AnswerTo(0));
    racing.client->OnNotify("tick", [](const auto&) {});
    auto copy = racing.client;
    Race([&racing] { racing.client.reset(); },
         [&copy] {
           copy->Receive(Message::CreateNotification("tick", {}));
           copy.reset();
         });
  }
}

TEST(ServerRace, RunAndTheConnectRequestAnswerTheHandshakeOnce) {
  for (int round = 0; round < kRounds; ++round) {
    Recorder recorder;
    const auto server = IOwnedServer::Create(recorder.Send());
    std::atomic<int> connected = 0;
    server->OnConnected([&connected](const auto&) { ++connected; });
    Race([&server] { server->Run(); },
         [&server] {
           server->Receive(Message::CreateRequest(Message::ID("c"), "vorpc.connected", {}));
         });
    ASSERT_THAT(recorder.GetSent(), ElementsAre(Message::CreateResponse(Message::ID("c"), {})));
    ASSERT_EQ(connected, 1);
  }
}

TEST(ServerRace, RepliesAndTheEndOfTheServerAreSafe) {
  for (int round = 0; round < kRounds; ++round) {
    Recorder recorder;
    auto server = IOwnedServer::Create(recorder.Send());
    std::unique_ptr<IReply> kept;
    server->OnRequest("a", [&kept](const std::string&, const cw::EncodableValue&,
                                   std::unique_ptr<IReply>&& reply) { kept = std::move(reply); });
    server->Run();
    server->Receive(Message::CreateRequest(Message::ID("c"), "vorpc.connected", {}));
    server->Receive(Message::CreateRequest(Message::ID("r"), "a", {}));
    Race([&server] { server.reset(); }, [&kept] { kept->SendResult(1); });
    ASSERT_LE(recorder.CountSent(), 2U);
  }
}

}  // namespace
}  // namespace vorpc::test_support
