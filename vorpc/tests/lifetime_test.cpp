// What happens when the client or the server is let go, or an exception comes, in a callback.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <vorpc/client.h>
#include <vorpc/server.h>

#include <functional>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "recorder.h"
#include "support/capture.h"

namespace vorpc::test_support {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using Error = Message::Error;
using ID = Message::ID;

Message Notice(std::string_view method) { return Message::CreateNotification(method, {}); }

// --- The client is let go in each of its callbacks ---

class ClientLifetimeTest : public testing::Test {
 protected:
  // Every handler holds the witness, so it is free once the client is.
  ClientLifetimeTest() {
    client_ = IOwnedClient::Create([this, witness = witness_](Message&& message) {
      sent_.push_back(message);
      if (on_send_) {
        on_send_(message);
      }
    });
  }
  ~ClientLifetimeTest() override {
    EXPECT_EQ(client_, nullptr);
    EXPECT_EQ(witness_.use_count(), 1);
  }

  void Start() {
    client_->Run();
    client_->SetStarted();
  }
  // Answers the connect request. `client` keeps nothing alive.
  void AnswerConnect(IOwnedClient* client) {
    client->Receive(Message::CreateResponse(sent_.at(0).GetRequest()->id, {}));
  }
  void Connect() {
    Start();
    AnswerConnect(client_.get());
  }
  void LetGo() {
    events_.emplace_back("let go");
    client_.reset();
  }
  std::function<void(const std::optional<Error>&)> Outcome(const std::string& name) {
    return [this, name, witness = witness_](const auto&) { events_.push_back(name); };
  }
  void Request(const std::string& name) {
    client_->SendRequest(
        name, {}, [this, name, witness = witness_](const auto&) { events_.push_back(name); });
  }

  std::shared_ptr<int> witness_ = std::make_shared<int>();
  std::vector<Message> sent_;
  std::vector<std::string> events_;
  std::function<void(const Message&)> on_send_;
  std::shared_ptr<IOwnedClient> client_;
};

TEST_F(ClientLifetimeTest, InConnected) {
  client_->OnConnected([this, witness = witness_](const auto&) { LetGo(); });
  client_->OnConnected(Outcome("second"));
  Request("pending");
  client_->SendNotify("queued", {});
  Connect();
  EXPECT_THAT(events_, ElementsAre("let go"));
  EXPECT_EQ(sent_.size(), 1U);
}

TEST_F(ClientLifetimeTest, InConnectedWhenItSubscribedLate) {
  Connect();
  client_->OnConnected([this, witness = witness_](const auto&) { LetGo(); });
  EXPECT_THAT(events_, ElementsAre("let go"));
}

TEST_F(ClientLifetimeTest, InDisconnectedWhenItSubscribedLate) {
  Connect();
  client_->Disconnect({});
  client_->OnDisconnected([this, witness = witness_](const auto&) { LetGo(); });
  EXPECT_THAT(events_, ElementsAre("let go"));
}

TEST_F(ClientLifetimeTest, InConnectedWithAnError) {
  client_->OnConnected([this, witness = witness_](const auto&) { LetGo(); });
  Request("pending");
  Start();
  client_->Disconnect({});
  EXPECT_THAT(events_, ElementsAre("let go"));
}

TEST_F(ClientLifetimeTest, InDisconnected) {
  client_->OnDisconnected([this, witness = witness_](const auto&) { LetGo(); });
  client_->OnDisconnected(Outcome("second"));
  Connect();
  Request("pending");
  client_->Disconnect({});
  EXPECT_THAT(events_, ElementsAre("let go"));
}

TEST_F(ClientLifetimeTest, InANotification) {
  client_->OnNotify("tick", [this, witness = witness_](const auto&) { LetGo(); });
  client_->OnNotify("tick", [this, witness = witness_](const auto&) { events_.push_back("2"); });
  Connect();
  client_->Receive(Notice("tick"));
  EXPECT_THAT(events_, ElementsAre("let go"));
}

TEST_F(ClientLifetimeTest, InANotificationWithMoreOfTheBatchToCome) {
  client_->OnNotify("tick", [this, witness = witness_](const auto&) { LetGo(); });
  Start();
  client_->Receive(Notice("tick"));
  client_->Receive(Notice("tick"));
  client_->SendNotify("queued", {});
  AnswerConnect(client_.get());
  EXPECT_THAT(events_, ElementsAre("let go"));
  EXPECT_EQ(sent_.size(), 1U);
}

TEST_F(ClientLifetimeTest, InAResponse) {
  Connect();
  client_->SendRequest("a", {}, [this, witness = witness_](const auto&) { LetGo(); });
  Request("pending");
  client_->Receive(Message::CreateResponse(sent_.at(1).GetRequest()->id, {}));
  EXPECT_THAT(events_, ElementsAre("let go"));
}

TEST_F(ClientLifetimeTest, InAPendingCallbackAtTheEnd) {
  Connect();
  client_->SendRequest("a", {}, [this, witness = witness_](const auto&) { LetGo(); });
  Request("pending");
  client_->Disconnect({});
  EXPECT_THAT(events_, ElementsAre("let go"));
}

TEST_F(ClientLifetimeTest, InAPendingCallbackWhenTheHandshakeFails) {
  client_->SendRequest("a", {}, [this, witness = witness_](const auto&) { LetGo(); });
  Request("pending");
  client_->OnConnected(Outcome("connect failed"));
  client_->OnDisconnected(Outcome("disconnected"));
  Start();
  client_->Disconnect({});
  EXPECT_THAT(events_, ElementsAre("connect failed", "let go"));
  EXPECT_EQ(sent_.size(), 1U);
}

TEST_F(ClientLifetimeTest, InAPendingCallbackWhenTheServerRefusesForTheLastTime) {
  client_->SendRequest("a", {}, [this, witness = witness_](const auto&) { LetGo(); });
  Request("pending");
  Start();
  tarv::test::StdoutOf([this] {
    for (std::size_t attempt = 0; attempt < 4; ++attempt) {
      client_->Receive(Message::CreateError(sent_.at(attempt).GetRequest()->id, -1, "busy"));
    }
  });
  EXPECT_THAT(events_, ElementsAre("let go"));
}

TEST_F(ClientLifetimeTest, InTheSendFunctionOfWhatWasQueued) {
  Request("pending");
  client_->SendNotify("queued", {});
  client_->OnConnected(Outcome("connected"));
  Start();
  on_send_ = [this](const Message&) { LetGo(); };
  AnswerConnect(client_.get());
  EXPECT_THAT(events_, ElementsAre("connected", "let go"));
  EXPECT_EQ(sent_.size(), 2U);
}

TEST_F(ClientLifetimeTest, InTheSendFunctionDuringTheHandshake) {
  on_send_ = [this](const Message&) { LetGo(); };
  client_->OnConnected(Outcome("connected"));
  client_->SetStarted();
  client_->Run();
  EXPECT_THAT(events_, ElementsAre("let go"));
}

TEST_F(ClientLifetimeTest, InTheSendFunctionOfARequest) {
  Connect();
  on_send_ = [this](const Message&) { LetGo(); };
  Request("a");
  EXPECT_THAT(events_, ElementsAre("let go"));
}

TEST_F(ClientLifetimeTest, InTheSendFunctionOfANotification) {
  Connect();
  on_send_ = [this](const Message&) { LetGo(); };
  client_->SendNotify("a", {});
  EXPECT_THAT(events_, ElementsAre("let go"));
}

TEST_F(ClientLifetimeTest, InTheSendFunctionOfARetry) {
  client_->OnConnected(Outcome("connected"));
  Start();
  on_send_ = [this](const Message&) { LetGo(); };
  tarv::test::StdoutOf(
      [this] { client_->Receive(Message::CreateError(sent_.at(0).GetRequest()->id, -1, "busy")); });
  EXPECT_THAT(events_, ElementsAre("let go"));
}

TEST_F(ClientLifetimeTest, OnAnotherThreadWhileACallbackRuns) {
  client_->OnNotify("tick", [this, witness = witness_](const auto&) {
    std::thread([this] { LetGo(); }).join();
    events_.emplace_back("still here");
  });
  client_->OnNotify("tick", [this, witness = witness_](const auto&) { events_.push_back("2"); });
  Connect();
  client_->Receive(Notice("tick"));
  EXPECT_THAT(events_, ElementsAre("let go", "still here"));
}

// Calls the client back when what a callback captured dies.
TEST_F(ClientLifetimeTest, LetsCapturedObjectsCallTheClientWhileTheyDie) {
  struct CallsOnDeath {
    IOwnedClient* client;
    ~CallsOnDeath() {
      client->SendNotify("bye", {});
      client->Disconnect({});
    }
  };
  Connect();
  const auto caller = std::shared_ptr<CallsOnDeath>(new CallsOnDeath{client_.get()});
  const auto give = [&caller] { return caller; };
  client_->OnNotify("tick", [held = give()](const auto&) {});
  client_->OnDisconnected([held = give()](const auto&) {});
  client_->SendRequest("a", {}, [held = give()](const auto&) {});
  const_cast<std::shared_ptr<CallsOnDeath>&>(caller).reset();
  client_.reset();
  EXPECT_EQ(sent_.size(), 2U);
  EXPECT_THAT(events_, IsEmpty());
}

// --- The server is let go in each of its callbacks ---

class ServerLifetimeTest : public testing::Test {
 protected:
  ServerLifetimeTest() {
    server_ = IOwnedServer::Create([this, witness = witness_](Message&& message) {
      sent_.push_back(message);
      if (on_send_) {
        on_send_(message);
      }
    });
  }
  ~ServerLifetimeTest() override {
    EXPECT_EQ(server_, nullptr);
    EXPECT_EQ(witness_.use_count(), 1);
  }

  void Connect() {
    server_->Run();
    server_->Receive(Message::CreateRequest(ID("c"), "vorpc.connected", {}));
  }
  void LetGo() {
    events_.emplace_back("let go");
    server_.reset();
  }
  IServer::RequestHandler Answer() {
    return [this, witness = witness_](const std::string& method, const cw::EncodableValue&,
                                      std::unique_ptr<IReply>&& reply) {
      events_.push_back(method);
      reply->SendResult(1);
    };
  }

  std::shared_ptr<int> witness_ = std::make_shared<int>();
  std::vector<Message> sent_;
  std::vector<std::string> events_;
  std::function<void(const Message&)> on_send_;
  std::shared_ptr<IOwnedServer> server_;
};

TEST_F(ServerLifetimeTest, InConnected) {
  server_->OnConnected([this, witness = witness_](const auto&) { LetGo(); });
  server_->OnConnected([this, witness = witness_](const auto&) { events_.push_back("2"); });
  server_->OnRequest("a", Answer());
  server_->Receive(Message::CreateRequest(ID("r"), "a", {}));
  Connect();
  EXPECT_THAT(events_, ElementsAre("let go"));
  EXPECT_THAT(sent_, IsEmpty());
}

TEST_F(ServerLifetimeTest, InConnectedFromRun) {
  server_->OnConnected([this, witness = witness_](const auto&) { LetGo(); });
  server_->Receive(Message::CreateRequest(ID("c"), "vorpc.connected", {}));
  server_->Run();
  EXPECT_THAT(events_, ElementsAre("let go"));
}

TEST_F(ServerLifetimeTest, InConnectedWhenItSubscribedLate) {
  Connect();
  server_->OnConnected([this, witness = witness_](const auto&) { LetGo(); });
  EXPECT_THAT(events_, ElementsAre("let go"));
}

TEST_F(ServerLifetimeTest, InARequestHandlerAndThenReplying) {
  server_->OnRequest("a", [this, witness = witness_](const std::string&, const cw::EncodableValue&,
                                                     std::unique_ptr<IReply>&& reply) {
    LetGo();
    reply->SendResult(1);
  });
  server_->Receive(Message::CreateRequest(ID("1"), "a", {}));
  server_->Receive(Message::CreateRequest(ID("2"), "a", {}));
  Connect();
  EXPECT_THAT(events_, ElementsAre("let go"));
  EXPECT_EQ(sent_.size(), 1U);
}

TEST_F(ServerLifetimeTest, InANotification) {
  server_->OnNotify("tick", [this, witness = witness_](const auto&) { LetGo(); });
  server_->OnNotify("tick", [this, witness = witness_](const auto&) { events_.push_back("2"); });
  Connect();
  server_->Receive(Notice("tick"));
  EXPECT_THAT(events_, ElementsAre("let go"));
}

TEST_F(ServerLifetimeTest, InTheSendFunctionOfTheHandshake) {
  on_send_ = [this](const Message&) { LetGo(); };
  server_->OnRequest("a", Answer());
  server_->Receive(Message::CreateRequest(ID("r"), "a", {}));
  Connect();
  EXPECT_THAT(events_, ElementsAre("let go"));
}

TEST_F(ServerLifetimeTest, InTheSendFunctionOfWhatWasQueued) {
  server_->SendNotify("first", {});
  server_->SendNotify("second", {});
  on_send_ = [this](const Message& message) {
    if (message.GetNotification() != nullptr) {
      LetGo();
    }
  };
  Connect();
  EXPECT_THAT(events_, ElementsAre("let go"));
  EXPECT_EQ(sent_.size(), 2U);  // the answer to the handshake, and the first
}

TEST_F(ServerLifetimeTest, InTheSendFunctionOfANotification) {
  Connect();
  on_send_ = [this](const Message&) { LetGo(); };
  server_->SendNotify("a", {});
  EXPECT_THAT(events_, ElementsAre("let go"));
}

TEST_F(ServerLifetimeTest, InTheSendFunctionOfAReply) {
  server_->OnRequest("a", Answer());
  Connect();
  on_send_ = [this](const Message&) { LetGo(); };
  server_->Receive(Message::CreateRequest(ID("r"), "a", {}));
  EXPECT_THAT(events_, ElementsAre("a", "let go"));
}

TEST_F(ServerLifetimeTest, InTheSendFunctionOfAReplyThatIsSentLater) {
  std::unique_ptr<IReply> kept;
  server_->OnRequest("a", [&kept, witness = witness_](const std::string&, const cw::EncodableValue&,
                                                      std::unique_ptr<IReply>&& reply) {
    kept = std::move(reply);
  });
  Connect();
  server_->Receive(Message::CreateRequest(ID("r"), "a", {}));
  on_send_ = [this](const Message&) { LetGo(); };
  kept->SendResult(1);
  kept->SendResult(2);
  EXPECT_THAT(events_, ElementsAre("let go"));
}

TEST_F(ServerLifetimeTest, InTheSendFunctionOfAnUnknownMethod) {
  Connect();
  on_send_ = [this](const Message&) { LetGo(); };
  server_->Receive(Message::CreateRequest(ID("r"), "nothing", {}));
  EXPECT_THAT(events_, ElementsAre("let go"));
}

// --- Exceptions reach the caller and leave everything usable ---

void Throw() { throw std::runtime_error("from a callback"); }

TEST(ClientException, InConnectedStillReleasesTheQueue) {
  Recorder recorder;
  const auto client = IOwnedClient::Create(recorder.Send());
  client->OnConnected([](const auto&) { Throw(); });
  client->SendNotify("queued", {});
  client->Run();
  client->SetStarted();
  EXPECT_THROW(client->Receive(Message::CreateResponse(recorder.GetLast().GetRequest()->id, {})),
               std::runtime_error);
  EXPECT_TRUE(client->IsConnected());
  EXPECT_EQ(recorder.GetLast(), Notice("queued"));
  std::thread([&client] { client->SendNotify("next", {}); }).join();
  EXPECT_EQ(recorder.GetLast(), Notice("next"));
}

TEST(ClientException, AtTheEndStillAnswersEveryRequest) {
  Recorder recorder;
  const auto client = IOwnedClient::Create(recorder.Send());
  int answered = 0;
  for (int i = 0; i < 3; ++i) {
    client->SendRequest("a", {}, [&answered](const auto&) {
      ++answered;
      Throw();
    });
  }
  client->OnConnected([](const auto&) { throw std::logic_error("the first one"); });
  client->Run();
  client->SetStarted();
  EXPECT_THROW(client->Disconnect({}), std::logic_error);
  EXPECT_EQ(answered, 3);
}

TEST(ClientException, InAResponseLeavesTheOtherRequestsPending) {
  Recorder recorder;
  const auto client = IOwnedClient::Create(recorder.Send());
  client->Run();
  client->SetStarted();
  client->Receive(Message::CreateResponse(recorder.GetLast().GetRequest()->id, {}));
  client->SendRequest("a", {}, [](const auto&) { Throw(); });
  const ID first = recorder.GetLast().GetRequest()->id;
  bool answered = false;
  client->SendRequest("b", {}, [&answered](const auto&) { answered = true; });
  EXPECT_THROW(client->Receive(Message::CreateResponse(first, {})), std::runtime_error);
  client->Receive(Message::CreateResponse(recorder.GetLast().GetRequest()->id, {}));
  EXPECT_TRUE(answered);
}

TEST(ClientException, InTheSendFunctionReachesWhoeverSends) {
  const auto client = IOwnedClient::Create([](Message&&) { Throw(); });
  client->SetStarted();
  EXPECT_THROW(client->Run(), std::runtime_error);
  std::thread([&client] { client->Disconnect({}); }).join();
  EXPECT_TRUE(client->HasConnectionFailed());
}

TEST(ServerException, InConnectedStillAnswersTheHandshake) {
  Recorder recorder;
  const auto server = IOwnedServer::Create(recorder.Send());
  server->OnConnected([](const auto&) { Throw(); });
  server->SendNotify("queued", {});
  server->Run();
  EXPECT_THROW(server->Receive(Message::CreateRequest(ID("c"), "vorpc.connected", {})),
               std::runtime_error);
  EXPECT_THAT(recorder.GetSent(),
              ElementsAre(Message::CreateResponse(ID("c"), {}), Notice("queued")));
}

TEST(ServerException, InARequestHandlerReachesWhoeverDelivers) {
  Recorder recorder;
  const auto server = IOwnedServer::Create(recorder.Send());
  server->OnRequest("bad", [](const std::string&, const cw::EncodableValue&,
                              std::unique_ptr<IReply>&&) { Throw(); });
  server->Run();
  server->Receive(Message::CreateRequest(ID("c"), "vorpc.connected", {}));
  EXPECT_THROW(server->Receive(Message::CreateRequest(ID("1"), "bad", {})), std::runtime_error);
  std::thread([&server] {
    server->Receive(Message::CreateRequest(ID("2"), "unknown", {}));
  }).join();
  EXPECT_EQ(ErrorOf(recorder.GetLast()).code, -32601);
}

TEST(ServerException, InANotificationHandlerReachesWhoeverDelivers) {
  Recorder recorder;
  const auto server = IOwnedServer::Create(recorder.Send());
  server->OnNotify("bad", [](const auto&) { Throw(); });
  server->Run();
  server->Receive(Message::CreateRequest(ID("c"), "vorpc.connected", {}));
  EXPECT_THROW(server->Receive(Notice("bad")), std::runtime_error);
  std::thread([&server] {
    server->Receive(Message::CreateRequest(ID("2"), "unknown", {}));
  }).join();
  EXPECT_EQ(ErrorOf(recorder.GetLast()).code, -32601);
}

TEST(ClientException, InANotificationHandlerReachesWhoeverDelivers) {
  Recorder recorder;
  const auto client = IOwnedClient::Create(recorder.Send());
  client->OnNotify("bad", [](const auto&) { Throw(); });
  client->Run();
  client->SetStarted();
  client->Receive(Message::CreateResponse(recorder.GetLast().GetRequest()->id, {}));
  EXPECT_THROW(client->Receive(Notice("bad")), std::runtime_error);
  std::thread([&client] { client->SendNotify("next", {}); }).join();
  EXPECT_EQ(recorder.GetLast(), Notice("next"));
}

}  // namespace
}  // namespace vorpc::test_support
