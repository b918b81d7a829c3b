#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <vorpc/server.h>

#include <chrono>
#include <functional>
#include <future>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "recorder.h"
#include "support/capture.h"
#include "support/log_line.h"

namespace vorpc::test_support {
namespace {

using tarv::test::IsLogLine;
using tarv::test::StdoutOf;
using testing::ElementsAre;
using testing::IsEmpty;
using Error = Message::Error;
using ID = Message::ID;

const Message kHandshakeAnswer = Message::CreateResponse(ID("c"), {});

Message Call(const char* id, std::string_view method) {
  return Message::CreateRequest(ID(id), method, {});
}

Message ConnectRequest() { return Call("c", "vorpc.connected"); }

// A server on a recorder; its handler of "echo" answers with the params.
class ServerTest : public testing::Test {
 protected:
  ServerTest() {
    server_->OnRequest("echo", [](const std::string& method, const cw::EncodableValue& params,
                                  std::unique_ptr<IReply>&& reply) {
      EXPECT_EQ(method, "echo");
      reply->SendResult(params);
    });
  }

  void Connect() {
    server_->Run();
    server_->Receive(ConnectRequest());
  }

  Recorder recorder_;
  std::shared_ptr<IOwnedServer> server_ = IOwnedServer::Create(recorder_.Send());
};

// --- Handshake ---

TEST_F(ServerTest, AnswersAConnectRequestThatCameBeforeRunWhenItRuns) {
  server_->Receive(ConnectRequest());
  EXPECT_EQ(recorder_.CountSent(), 0U);
  server_->Run();
  EXPECT_THAT(recorder_.GetSent(), ElementsAre(kHandshakeAnswer));
}

TEST_F(ServerTest, AnswersAConnectRequestThatComesAfterRunAtOnce) {
  server_->Run();
  EXPECT_EQ(recorder_.CountSent(), 0U);
  server_->Receive(ConnectRequest());
  EXPECT_THAT(recorder_.GetSent(), ElementsAre(kHandshakeAnswer));
}

TEST_F(ServerTest, AnswersTheHandshakeWithANullResultOnTheWire) {
  Connect();
  const cw::EncodableValue encoded = recorder_.GetLast().ToEncodable();
  ASSERT_NE(encoded.Find("result"), nullptr);
  EXPECT_TRUE(encoded.Find("result")->IsNull());
}

TEST_F(ServerTest, DispatchesWhatCameBeforeRunOnlyAfterTheAnswer) {
  server_->Receive(ConnectRequest());
  server_->Receive(Message::CreateRequest(ID("r"), "echo", 5));
  EXPECT_EQ(recorder_.CountSent(), 0U);
  server_->Run();
  EXPECT_THAT(recorder_.GetSent(),
              ElementsAre(kHandshakeAnswer, Message::CreateResponse(ID("r"), 5)));
}

TEST_F(ServerTest, HoldsEverythingBackUntilTheClientAsksToConnect) {
  server_->Run();
  server_->Receive(Message::CreateRequest(ID("r"), "echo", 5));
  server_->SendNotify("tick", {});
  EXPECT_EQ(recorder_.CountSent(), 0U);
  server_->Receive(ConnectRequest());
  // The answer to the request joins the queue of what went out meanwhile only when it is made; made
  // from inside a delivery, it goes at once.
  EXPECT_THAT(recorder_.GetSent(),
              ElementsAre(kHandshakeAnswer, Message::CreateResponse(ID("r"), 5),
                          Message::CreateNotification("tick", {})));
}

TEST_F(ServerTest, AnswersAtMostOnceWhenItRunsTwice) {
  server_->Receive(ConnectRequest());
  server_->Run();
  server_->Run();
  EXPECT_THAT(recorder_.GetSent(), ElementsAre(kHandshakeAnswer));
}

TEST_F(ServerTest, RunsTheConnectedCallbacksBeforeTheAnswerLeaves) {
  int calls = 0;
  server_->OnConnected([this, &calls](const std::optional<Error>& error) {
    ++calls;
    EXPECT_EQ(error, std::nullopt);
    EXPECT_EQ(recorder_.CountSent(), 0U);
    server_->SendNotify("hello", {});
  });
  Connect();
  EXPECT_EQ(calls, 1);
  EXPECT_THAT(recorder_.GetSent(),
              ElementsAre(kHandshakeAnswer, Message::CreateNotification("hello", {})));
}

TEST_F(ServerTest, CallsALateConnectedSubscriberAtOnce) {
  Connect();
  bool called = false;
  server_->OnConnected([&called](const std::optional<Error>& error) { called = !error; });
  EXPECT_TRUE(called);
}

TEST_F(ServerTest, TreatsASecondConnectRequestBeforeRunAsAnOrdinaryRequest) {
  server_->Receive(ConnectRequest());
  server_->Receive(Call("again", "vorpc.connected"));
  server_->Run();
  EXPECT_THAT(
      recorder_.GetSent(),
      ElementsAre(kHandshakeAnswer,
                  Message::CreateError(ID("again"), -32601, "Unknown method 'vorpc.connected()'")));
}

TEST_F(ServerTest, TreatsAConnectRequestAfterTheHandshakeAsAnOrdinaryRequest) {
  Connect();
  server_->Receive(Call("again", "vorpc.connected"));
  EXPECT_EQ(ErrorOf(recorder_.GetLast()), Error(-32601, "Unknown method 'vorpc.connected()'"));
  server_->OnRequest("vorpc.connected",
                     [](const std::string&, const cw::EncodableValue&,
                        std::unique_ptr<IReply>&& reply) { reply->SendResult("handled"); });
  server_->Receive(Call("third", "vorpc.connected"));
  EXPECT_EQ(recorder_.GetLast(), Message::CreateResponse(ID("third"), "handled"));
}

TEST_F(ServerTest, DoesNotTakeANotificationForAConnectRequest) {
  server_->Run();
  server_->Receive(Message::CreateNotification("vorpc.connected", {}));
  EXPECT_EQ(recorder_.CountSent(), 0U);
}

// --- Requests ---

TEST_F(ServerTest, AnswersAnUnknownMethodWithAnErrorOfThatRequest) {
  Connect();
  server_->Receive(Call("r", "ping"));
  EXPECT_EQ(recorder_.GetLast(), Message::CreateError(ID("r"), -32601, "Unknown method 'ping()'"));
  EXPECT_TRUE(ErrorOf(recorder_.GetLast()).data.IsNull());
}

TEST_F(ServerTest, GivesAHandlerNullParamsWhenThereAreNone) {
  Connect();
  server_->Receive(Call("r", "echo"));
  EXPECT_EQ(recorder_.GetLast(), Message::CreateResponse(ID("r"), {}));
}

TEST_F(ServerTest, ReplacesAnEarlierHandler) {
  Connect();
  server_->OnRequest("echo", [](const std::string&, const cw::EncodableValue&,
                                std::unique_ptr<IReply>&& reply) { reply->SendResult("new"); });
  server_->Receive(Call("r", "echo"));
  EXPECT_EQ(recorder_.GetLast(), Message::CreateResponse(ID("r"), "new"));
}

TEST_F(ServerTest, ForgetsAHandlerThatIsReplacedByAnEmptyOne) {
  Connect();
  server_->OnRequest("echo", {});
  server_->Receive(Call("r", "echo"));
  EXPECT_EQ(ErrorOf(recorder_.GetLast()), Error(-32601, "Unknown method 'echo()'"));
}

TEST_F(ServerTest, LetsAHandlerReplaceItself) {
  Connect();
  auto witness = std::make_shared<int>(5);
  server_->OnRequest("once", [this, witness](const std::string&, const cw::EncodableValue&,
                                             std::unique_ptr<IReply>&& reply) {
    server_->OnRequest("once", {});
    reply->SendResult(*witness);
  });
  server_->Receive(Call("1", "once"));
  EXPECT_EQ(recorder_.GetLast(), Message::CreateResponse(ID("1"), 5));
  EXPECT_EQ(witness.use_count(), 1);
}

TEST_F(ServerTest, SendsTheErrorOfAReply) {
  Connect();
  server_->OnRequest(
      "fail", [](const std::string&, const cw::EncodableValue&, std::unique_ptr<IReply>&& reply) {
        reply->SendError(-5, "no", cw::EncodableMap{{"why", "because"}});
      });
  server_->Receive(Call("r", "fail"));
  EXPECT_EQ(recorder_.GetLast(),
            Message::CreateError(ID("r"), -5, "no", cw::EncodableMap{{"why", "because"}}));
}

// Keeps the replies instead of answering.
class DeferredReplyTest : public ServerTest {
 protected:
  DeferredReplyTest() {
    server_->OnRequest(
        "later", [this](const std::string&, const cw::EncodableValue&,
                        std::unique_ptr<IReply>&& reply) { replies_.push_back(std::move(reply)); });
    Connect();
    server_->Receive(Call("r", "later"));
  }

  // On a thread of its own, while a notification is delivered on this one.
  void AnswerWhileAnotherThreadDelivers(const std::function<void(IReply&)>& answer) {
    std::thread other;
    server_->OnNotify("tick", [&](const auto&) {
      std::promise<void> started;
      other = std::thread([&] {
        started.set_value();
        answer(*replies_.at(0));
      });
      started.get_future().wait();
      std::this_thread::sleep_for(std::chrono::milliseconds(50));
      EXPECT_EQ(recorder_.CountSent(), 1U) << "the answer has overtaken the notification";
    });
    server_->Receive(Message::CreateNotification("tick", {}));
    other.join();
  }

  std::vector<std::unique_ptr<IReply>> replies_;
};

TEST_F(DeferredReplyTest, MayAnswerLaterAndFromAnotherThread) {
  EXPECT_EQ(recorder_.CountSent(), 1U);
  std::thread([this] { replies_.at(0)->SendResult(7); }).join();
  EXPECT_EQ(recorder_.GetLast(), Message::CreateResponse(ID("r"), 7));
}

TEST_F(DeferredReplyTest, WaitsForItsTurnWhileAnotherThreadDelivers) {
  AnswerWhileAnotherThreadDelivers([](IReply& reply) { reply.SendResult(7); });
  EXPECT_EQ(recorder_.GetLast(), Message::CreateResponse(ID("r"), 7));
}

TEST_F(DeferredReplyTest, WaitsForItsTurnWithAnErrorToo) {
  AnswerWhileAnotherThreadDelivers([](IReply& reply) { reply.SendError(-1, "no", {}); });
  EXPECT_EQ(recorder_.GetLast(), Message::CreateError(ID("r"), -1, "no"));
}

TEST_F(DeferredReplyTest, SendsTwoResponsesWhenItIsUsedTwice) {
  replies_.at(0)->SendResult(7);
  replies_.at(0)->SendError(-1, "no", {});
  EXPECT_THAT(recorder_.GetSent(),
              ElementsAre(kHandshakeAnswer, Message::CreateResponse(ID("r"), 7),
                          Message::CreateError(ID("r"), -1, "no")));
}

TEST_F(DeferredReplyTest, SendsNothingWhenItDiesUnused) {
  replies_.clear();
  EXPECT_THAT(recorder_.GetSent(), ElementsAre(kHandshakeAnswer));
}

TEST_F(DeferredReplyTest, SendsNothingOnceTheServerIsGone) {
  server_.reset();
  replies_.at(0)->SendResult(7);
  replies_.at(0)->SendError(-1, "no", {});
  EXPECT_THAT(recorder_.GetSent(), ElementsAre(kHandshakeAnswer));
}

// --- Everything else ---

TEST_F(ServerTest, DispatchesNotificationsWithoutAnAnswer) {
  cw::EncodableValue seen;
  server_->OnNotify("tick", [&seen](const auto& notification) { seen = notification.params; });
  Connect();
  server_->Receive(Message::CreateNotification("tick", 3));
  EXPECT_EQ(seen, cw::EncodableValue(3));
  EXPECT_THAT(recorder_.GetSent(), ElementsAre(kHandshakeAnswer));
}

TEST_F(ServerTest, LogsANotificationThatNobodyHandlesAndDoesNotAnswerIt) {
  Connect();
  EXPECT_THAT(StdoutOf([this] { server_->Receive(Message::CreateNotification("ping", {})); }),
              IsLogLine("error", "Unknown event 'ping()'"));
  EXPECT_THAT(recorder_.GetSent(), ElementsAre(kHandshakeAnswer));
}

TEST_F(ServerTest, LogsResponsesAndErrorsThatReachIt) {
  Connect();
  for (const Message& message :
       {Message::CreateResponse(ID(1), 2), Message::CreateError(-1, "e"), Message()}) {
    EXPECT_THAT(StdoutOf([&] { server_->Receive(Message(message)); }),
                IsLogLine("warn", "[RPC Receiver]: unhandled message"));
  }
}

TEST_F(ServerTest, SendsNotificationsInTheirOrder) {
  Connect();
  server_->SendNotify("a", 1);
  server_->SendNotify("b", {});
  EXPECT_THAT(recorder_.GetSent(),
              ElementsAre(kHandshakeAnswer, Message::CreateNotification("a", 1),
                          Message::CreateNotification("b", {})));
}

TEST_F(ServerTest, KeepsNothingOnceClosed) {
  const auto witness = std::make_shared<int>();
  const auto give_callbacks = [this, &witness] {
    server_->OnConnected([witness](const auto&) {});
    server_->OnNotify("tick", [witness](const auto&) {});
    server_->OnRequest("a", [witness](const std::string&, const cw::EncodableValue&,
                                      std::unique_ptr<IReply>&&) {});
    server_->SendNotify("b", cw::CustomEncodableValue(witness));
  };
  give_callbacks();
  EXPECT_EQ(witness.use_count(), 5);
  server_->Abandon();
  EXPECT_EQ(witness.use_count(), 1);
  give_callbacks();
  EXPECT_EQ(witness.use_count(), 1);
}

// A handler that dies registers another one, which finds the lock free.
TEST_F(ServerTest, LetsAHandlerDieOutsideItsLockOnceClosed) {
  struct RegistersOnDeath {
    IOwnedServer* server;
    ~RegistersOnDeath() { server->OnRequest("b", {}); }
  };
  auto held = std::shared_ptr<RegistersOnDeath>(new RegistersOnDeath{server_.get()});
  const std::weak_ptr<RegistersOnDeath> witness = held;
  server_->Abandon();
  server_->OnRequest("a", [held = std::move(held)](const std::string&, const cw::EncodableValue&,
                                                   std::unique_ptr<IReply>&&) {});
  EXPECT_TRUE(witness.expired());
}

TEST(Server, WorksWithoutASendFunction) {
  const auto server = IOwnedServer::Create({});
  server->Run();
  server->Receive(ConnectRequest());
  bool connected = false;
  server->OnConnected([&connected](const auto&) { connected = true; });
  EXPECT_TRUE(connected);
}

// --- Replies ---

// The reply to a request, kept instead of being used.
class ReplyTest : public ServerTest {
 protected:
  ReplyTest() {
    server_->OnRequest("keep",
                       [this](const std::string&, const cw::EncodableValue&,
                              std::unique_ptr<IReply>&& reply) { kept_ = std::move(reply); });
    Connect();
    server_->Receive(Call("r7", "keep"));
  }

  std::unique_ptr<IReply> kept_;
};

TEST_F(ReplyTest, KnowsTheIdOfItsRequest) { EXPECT_EQ(kept_->GetRequestId(), ID("r7")); }

TEST_F(ReplyTest, OfAnotherMakeHasAnIdWithoutAText) {
  class OtherReply : public IReply {
    void SendResult(cw::EncodableValue) override {}
    void SendError(int, std::string_view, const cw::EncodableValue&) override {}
  };
  EXPECT_EQ(OtherReply().GetRequestId(), ID(""));
}

TEST_F(ReplyTest, ThatDiesUnansweredSendsNothingAndLeavesALineWithTheIdOfItsRequest) {
  EXPECT_THAT(
      StdoutOf([this] { kept_.reset(); }),
      IsLogLine("warn",
                "The reply to the request \"r7\" was destroyed without an answer: its client "
                "waits until the connection ends. Call SendResult or SendError once."));
  EXPECT_THAT(recorder_.GetSent(), ElementsAre(kHandshakeAnswer));
}

TEST_F(ReplyTest, ThatWasAnsweredDiesWithoutAWord) {
  kept_->SendResult(1);
  EXPECT_EQ(StdoutOf([this] { kept_.reset(); }), "");
  server_->Receive(Call("r8", "keep"));
  kept_->SendError(-1, "no", {});
  EXPECT_EQ(StdoutOf([this] { kept_.reset(); }), "");
}

TEST_F(ReplyTest, ThatDiesUnansweredAfterItsServerDiesWithoutAWord) {
  server_.reset();
  EXPECT_EQ(StdoutOf([this] { kept_.reset(); }), "");
}

TEST_F(ReplyTest, ThatDiesUnansweredOnceItsServerWasAbandonedDiesWithoutAWord) {
  server_->Abandon();
  EXPECT_EQ(StdoutOf([this] { kept_.reset(); }), "");
}

TEST_F(ReplyTest, ThatAnExceptionDestroysUnansweredLeavesTheLineToo) {
  server_->OnRequest("throw", [](const std::string&, const cw::EncodableValue&,
                                 std::unique_ptr<IReply>&&) { throw std::runtime_error("no"); });
  EXPECT_THAT(
      StdoutOf([this] { EXPECT_THROW(server_->Receive(Call("r9", "throw")), std::runtime_error); }),
      testing::HasSubstr("The reply to the request \"r9\" was destroyed"));
}

}  // namespace
}  // namespace vorpc::test_support
