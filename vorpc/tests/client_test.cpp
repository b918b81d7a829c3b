#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <vorpc/client.h>

#include <cstdint>
#include <functional>
#include <memory>
#include <new>
#include <optional>
#include <stdexcept>
#include <string>
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
using testing::HasSubstr;
using testing::IsEmpty;
using Error = Message::Error;
using ID = Message::ID;

const Error kTransportError(-7, "the cable was cut");
const Error kUnknownRuntimeError(-32603, "Unknown runtime error");

// A client on a recorder, and a diary of what it reports.
class ClientTest : public testing::Test {
 protected:
  ClientTest() {
    client_->OnConnected([this](const std::optional<Error>& error) {
      diary_.push_back(error ? "connect failed: " + error->message : "connected");
    });
    client_->OnDisconnected([this](const std::optional<Error>& error) {
      diary_.push_back(error ? "disconnected: " + error->message : "disconnected");
    });
  }

  void Start() {
    client_->Run();
    client_->SetStarted();
  }

  void Connect() {
    Start();
    AnswerLast({});
  }

  void AnswerLast(cw::EncodableValue result) {
    client_->Receive(
        Message::CreateResponse(recorder_.GetLast().GetRequest()->id, std::move(result)));
  }

  void RefuseLast(const Error& error) {
    client_->Receive(Message::CreateError(recorder_.GetLast().GetRequest()->id, error));
  }

  void Request(const std::string& method) {
    client_->SendRequest(method, {}, [this, method](const Message::Response& response) {
      diary_.push_back(
          method + (response.IsError() ? " failed: " + response.GetError()->message : " answered"));
    });
  }

  std::vector<std::string> SentMethods() const {
    std::vector<std::string> methods;
    for (const Message& message : recorder_.GetSent()) {
      const auto* const request = message.GetRequest();
      methods.push_back(request != nullptr ? request->method : message.GetNotification()->method);
    }
    return methods;
  }

  Recorder recorder_;
  std::vector<std::string> diary_;
  std::shared_ptr<IOwnedClient> client_ = IOwnedClient::Create(recorder_.Send());
};

// --- Handshake ---

TEST_F(ClientTest, IsNeitherConnectedNorFailedAtFirst) {
  EXPECT_FALSE(client_->IsConnected());
  EXPECT_FALSE(client_->HasConnectionFailed());
  EXPECT_EQ(recorder_.CountSent(), 0U);
}

TEST_F(ClientTest, SendsOneConnectRequestWhenItIsStartedBeforeItRuns) {
  client_->SetStarted();
  EXPECT_THAT(SentMethods(), IsEmpty());
  client_->Run();
  EXPECT_THAT(SentMethods(), ElementsAre("vorpc.connected"));
}

TEST_F(ClientTest, SendsOneConnectRequestWhenItRunsBeforeItIsStarted) {
  client_->Run();
  EXPECT_THAT(SentMethods(), IsEmpty());
  client_->SetStarted();
  EXPECT_THAT(SentMethods(), ElementsAre("vorpc.connected"));
}

TEST_F(ClientTest, SendsOneConnectRequestHoweverOftenItRunsAndStarts) {
  client_->Run();
  client_->Run();
  client_->SetStarted();
  client_->SetStarted();
  client_->Run();
  EXPECT_THAT(SentMethods(), ElementsAre("vorpc.connected"));
}

TEST_F(ClientTest, SendsTheConnectRequestWithoutParams) {
  Start();
  const cw::EncodableValue encoded = recorder_.GetLast().ToEncodable();
  EXPECT_EQ(encoded.Find("params"), nullptr);
  EXPECT_NE(encoded.Find("id"), nullptr);
}

TEST_F(ClientTest, IsConnectedByAnyResultNullIncluded) {
  Connect();
  EXPECT_TRUE(client_->IsConnected());
  EXPECT_FALSE(client_->HasConnectionFailed());
  EXPECT_THAT(diary_, ElementsAre("connected"));
}

TEST_F(ClientTest, IsNotConnectedByTheResponseToSomethingElse) {
  Start();
  client_->Receive(Message::CreateResponse(ID("other"), {}));
  EXPECT_FALSE(client_->IsConnected());
}

TEST_F(ClientTest, ReportsTheOutcomeToLateSubscribersAtOnce) {
  Connect();
  client_->OnConnected([this](const auto& error) { diary_.emplace_back(error ? "bad" : "late"); });
  EXPECT_THAT(diary_, ElementsAre("connected", "late"));
  client_->Disconnect(kTransportError);
  client_->OnDisconnected(
      [this](const auto& error) { diary_.push_back("late: " + error->message); });
  EXPECT_THAT(diary_, ElementsAre("connected", "late", "disconnected: the cable was cut",
                                  "late: the cable was cut"));
}

TEST_F(ClientTest, TellsALateSubscriberWhyConnectingFailed) {
  Start();
  client_->Disconnect(kTransportError);
  client_->OnConnected([this](const auto& error) { diary_.push_back("late: " + error->message); });
  EXPECT_THAT(diary_, ElementsAre("connect failed: the cable was cut", "late: the cable was cut"));
}

TEST_F(ClientTest, TriesFourTimesAndThenFailsWithTheLastErrorOfTheServer) {
  Start();
  const std::string log = StdoutOf([this] {
    for (int attempt = 1; attempt <= 4; ++attempt) {
      RefuseLast(Error(-attempt, "busy " + std::to_string(attempt)));
    }
  });
  EXPECT_THAT(SentMethods(), ElementsAre("vorpc.connected", "vorpc.connected", "vorpc.connected",
                                         "vorpc.connected"));
  EXPECT_THAT(log, HasSubstr("Connect error: busy 1\n"));
  EXPECT_THAT(log, HasSubstr("Connect error: busy 2\n"));
  EXPECT_THAT(log, HasSubstr("Connect error: busy 3\n"));
  EXPECT_THAT(log, testing::Not(HasSubstr("busy 4")));
  EXPECT_TRUE(client_->HasConnectionFailed());
  EXPECT_THAT(diary_, ElementsAre("connect failed: busy 4"));
}

TEST_F(ClientTest, IgnoresAResponseToItsConnectRequestThatIsNeitherResultNorError) {
  Start();
  const ID id = recorder_.GetLast().GetRequest()->id;
  EXPECT_EQ(StdoutOf([this, &id] { client_->Receive(ResponseWithoutOutcome(id)); }), "");
  EXPECT_FALSE(client_->IsConnected());
  EXPECT_FALSE(client_->HasConnectionFailed());
  EXPECT_THAT(SentMethods(), ElementsAre("vorpc.connected"));
  EXPECT_THAT(diary_, IsEmpty());
}

TEST_F(ClientTest, LogsWhyAnAttemptToConnectFailed) {
  Start();
  EXPECT_THAT(StdoutOf([this] { RefuseLast(Error(-1, "busy")); }),
              IsLogLine("error", "Connect error: busy"));
}

TEST_F(ClientTest, LogsNoControlCharacterOfItsServer) {
  Start();
  EXPECT_THAT(StdoutOf([this] { RefuseLast(Error(-1, "busy\n[info]\x1b[2J")); }),
              IsLogLine("error", "Connect error: busy\\n[info]\\x1b[2J"));
}

TEST_F(ClientTest, ConnectsWhenTheLastAttemptSucceeds) {
  Start();
  StdoutOf([this] {
    for (int attempt = 1; attempt <= 3; ++attempt) {
      RefuseLast(Error(-1, "busy"));
    }
  });
  AnswerLast({});
  EXPECT_TRUE(client_->IsConnected());
  EXPECT_THAT(diary_, ElementsAre("connected"));
}

TEST_F(ClientTest, DoesNotConnectByAResponseToAnEarlierAttempt) {
  Start();
  const ID first = recorder_.GetLast().GetRequest()->id;
  StdoutOf([this] { RefuseLast(Error(-1, "busy")); });
  client_->Receive(Message::CreateResponse(first, {}));
  EXPECT_FALSE(client_->IsConnected());
}

TEST_F(ClientTest, HoldsTrafficBackUntilTheConnectedCallbacksHaveRun) {
  client_->OnConnected([this](const auto&) {
    EXPECT_EQ(recorder_.CountSent(), 1U);  // the connect request alone
    Request("c");
    EXPECT_EQ(recorder_.CountSent(), 1U);
  });
  Request("a");
  client_->SendNotify("b", 5);
  Connect();
  EXPECT_THAT(SentMethods(), ElementsAre("vorpc.connected", "a", "b", "c"));
}

TEST_F(ClientTest, HoldsIncomingMessagesBackUntilItIsConnected) {
  client_->OnNotify("tick", [this](const auto&) { diary_.emplace_back("tick"); });
  Start();
  client_->Receive(Message::CreateNotification("tick", {}));
  EXPECT_THAT(diary_, IsEmpty());
  AnswerLast({});
  EXPECT_THAT(diary_, ElementsAre("connected", "tick"));
}

TEST_F(ClientTest, LetsAConnectRequestOfTheUserPassTheQueueDuringTheHandshake) {
  Start();
  Request("vorpc.connected");
  EXPECT_THAT(SentMethods(), ElementsAre("vorpc.connected", "vorpc.connected"));
}

TEST_F(ClientTest, TakesOnlyTheLastConnectRequestForTheHandshake) {
  Start();
  const ID own = recorder_.GetLast().GetRequest()->id;
  Request("vorpc.connected");
  client_->Receive(Message::CreateResponse(own, {}));  // waits in the queue, as all else does
  EXPECT_FALSE(client_->IsConnected());
  AnswerLast({});
  EXPECT_THAT(diary_, ElementsAre("vorpc.connected answered"));
  EXPECT_FALSE(client_->IsConnected());
}

// The earlier connect request holds what dies by calling the client, which finds its lock free.
TEST_F(ClientTest, LetsAnEarlierConnectRequestDieOutsideItsLock) {
  struct CallsOnDeath {
    std::shared_ptr<IOwnedClient> client;
    ~CallsOnDeath() {
      if (client != nullptr) {
        client->Receive(Message());
      }
    }
  };
  const auto client = IOwnedClient::Create({});
  std::weak_ptr<CallsOnDeath> witness;
  {
    const auto caller = std::make_shared<CallsOnDeath>();
    caller->client = client;
    witness = caller;
    client->SendRequest("vorpc.connected", cw::CustomEncodableValue(caller), {});
  }
  EXPECT_FALSE(witness.expired());
  client->SendRequest("vorpc.connected", {}, {});
  EXPECT_TRUE(witness.expired());
}

TEST_F(ClientTest, TreatsTheConnectMethodAsAnyOtherOnceConnected) {
  Connect();
  Request("vorpc.connected");
  AnswerLast(1);
  EXPECT_THAT(diary_, ElementsAre("connected", "vorpc.connected answered"));
}

// --- Requests ---

TEST_F(ClientTest, GivesAResponseToTheCallbackOfItsRequest) {
  Connect();
  cw::EncodableValue result;
  client_->SendRequest("add", cw::EncodableList{1, 2},
                       [&result](const auto& response) { result = *response.GetResult(); });
  EXPECT_EQ(recorder_.GetLast().GetRequest()->params, cw::EncodableValue(cw::EncodableList{1, 2}));
  AnswerLast(3);
  EXPECT_EQ(result, cw::EncodableValue(3));
}

TEST_F(ClientTest, MatchesResponsesInAnyOrder) {
  Connect();
  Request("a");
  const ID a = recorder_.GetLast().GetRequest()->id;
  Request("b");
  AnswerLast({});
  client_->Receive(Message::CreateError(a, -1, "no"));
  EXPECT_THAT(diary_, ElementsAre("connected", "b answered", "a failed: no"));
}

TEST_F(ClientTest, GivesOnlyTheFirstOfTwoResponsesToTheCallback) {
  Connect();
  Request("a");
  AnswerLast({});
  EXPECT_THAT(StdoutOf([this] { AnswerLast({}); }),
              IsLogLine("warn", "[RPC Receiver]: unhandled message"));
  EXPECT_THAT(diary_, ElementsAre("connected", "a answered"));
}

TEST_F(ClientTest, LogsAResponseThatNobodyWaitsFor) {
  Connect();
  EXPECT_THAT(StdoutOf([this] { client_->Receive(Message::CreateResponse(ID("other"), {})); }),
              IsLogLine("warn", "[RPC Receiver]: unhandled message"));
}

TEST_F(ClientTest, LogsAResponseToARequestWithoutACallback) {
  Connect();
  client_->SendRequest("a", {}, {});
  EXPECT_THAT(StdoutOf([this] { AnswerLast({}); }), IsLogLine("error", "Invalid server response"));
}

TEST_F(ClientTest, DoesNotTakeRequests) {
  Connect();
  EXPECT_THAT(StdoutOf([this] { client_->Receive(Message::CreateRequest(ID(1), "m", {})); }),
              IsLogLine("warn", "[RPC Receiver]: unhandled message"));
}

TEST_F(ClientTest, TakesNoRequestForTheResponseThatItWaitsFor) {
  Connect();
  Request("a");
  const ID id = recorder_.GetLast().GetRequest()->id;
  EXPECT_THAT(StdoutOf([&] { client_->Receive(Message::CreateRequest(id, "a", {})); }),
              IsLogLine("warn", "[RPC Receiver]: unhandled message"));
  AnswerLast({});
  EXPECT_THAT(diary_, ElementsAre("connected", "a answered"));
}

TEST_F(ClientTest, LogsANotificationThatNobodyHandles) {
  Connect();
  EXPECT_THAT(StdoutOf([this] { client_->Receive(Message::CreateNotification("ping", {})); }),
              IsLogLine("error", "Unknown event 'ping()'"));
}

TEST_F(ClientTest, GivesEveryHandlerItsOwnCopyOfTheNotification) {
  for (int i = 0; i < 2; ++i) {
    client_->OnNotify("tick", [this](const Message::Notification& notification) {
      diary_.push_back(*notification.params.AsString());
      const_cast<Message::Notification&>(notification).params = "spoiled";
    });
  }
  Connect();
  client_->Receive(Message::CreateNotification("tick", "fresh"));
  EXPECT_THAT(diary_, ElementsAre("connected", "fresh", "fresh"));
}

TEST_F(ClientTest, SendsARequestFromInsideTheCallbackOfAnother) {
  Connect();
  client_->SendRequest("a", {}, [this](const auto&) { Request("b"); });
  AnswerLast({});
  AnswerLast({});
  EXPECT_THAT(SentMethods(), ElementsAre("vorpc.connected", "a", "b"));
  EXPECT_THAT(diary_, ElementsAre("connected", "b answered"));
}

TEST_F(ClientTest, NumbersTheRequestsOfAllClientsInOneRowWithOneRandomPrefix) {
  Start();
  Recorder other_recorder;
  const auto other = IOwnedClient::Create(other_recorder.Send());
  other->Run();
  other->SetStarted();
  AnswerLast({});
  Request("a");
  std::vector<std::string> prefixes;
  std::vector<std::int64_t> numbers;
  const auto sent = recorder_.GetSent();
  for (const Message& message : {sent[0], other_recorder.GetLast(), sent[1]}) {
    const std::string id = message.GetRequest()->id.value;
    ASSERT_THAT(id, testing::MatchesRegex("id[1-9][0-9]*_[1-9][0-9]*"));
    const auto end = id.find('_') + 1;
    prefixes.push_back(id.substr(0, end));
    numbers.push_back(std::stoll(id.substr(end)));
    EXPECT_LE(std::stoi(id.substr(2)), 1000);
  }
  EXPECT_THAT(prefixes, testing::Each(prefixes[0]));
  EXPECT_THAT(numbers, ElementsAre(numbers[0], numbers[0] + 1, numbers[0] + 2));
}

// --- Ends ---

TEST_F(ClientTest, FailsTheHandshakeWithTheErrorOfTheTransport) {
  Start();
  Request("a");
  EXPECT_EQ(StdoutOf([this] { client_->Disconnect(kTransportError); }), "");
  EXPECT_TRUE(client_->HasConnectionFailed());
  EXPECT_THAT(diary_,
              ElementsAre("connect failed: the cable was cut", "a failed: the cable was cut"));
  EXPECT_THAT(SentMethods(), ElementsAre("vorpc.connected"));
}

TEST_F(ClientTest, FailsTheHandshakeWithAnUnknownErrorWhenTheTransportHasNone) {
  std::optional<Error> seen;
  client_->OnConnected([&seen](const auto& error) { seen = error; });
  Start();
  client_->Disconnect({});
  EXPECT_EQ(seen, kUnknownRuntimeError);
}

TEST_F(ClientTest, ReportsAnEndWithoutErrorAsSuchAndFailsWhatIsPending) {
  Connect();
  std::optional<Message::Response> seen;
  client_->SendRequest("a", {}, [&seen](const auto& response) { seen = response; });
  const ID id = recorder_.GetLast().GetRequest()->id;
  client_->Disconnect({});
  EXPECT_THAT(diary_, ElementsAre("connected", "disconnected"));
  EXPECT_EQ(seen, Message::Response(id, kUnknownRuntimeError));
  EXPECT_TRUE(client_->HasConnectionFailed());
  EXPECT_FALSE(client_->IsConnected());
}

TEST_F(ClientTest, ReportsTheEndAndThenFailsWhatIsPendingInItsOrder) {
  Connect();
  for (const char* const method : {"a", "b", "c", "d", "e"}) {
    Request(method);
  }
  client_->Disconnect(kTransportError);
  const std::string failed = " failed: the cable was cut";
  EXPECT_THAT(diary_, ElementsAre("connected", "disconnected: the cable was cut", "a" + failed,
                                  "b" + failed, "c" + failed, "d" + failed, "e" + failed));
}

TEST_F(ClientTest, EndsOnce) {
  Connect();
  client_->Disconnect(kTransportError);
  client_->Disconnect({});
  EXPECT_THAT(diary_, ElementsAre("connected", "disconnected: the cable was cut"));
}

TEST_F(ClientTest, SkipsAnEmptyCallbackWhenItEnds) {
  Connect();
  client_->SendRequest("a", {}, {});
  Request("b");
  client_->Disconnect(kTransportError);
  EXPECT_EQ(diary_.back(), "b failed: the cable was cut");
}

TEST_F(ClientTest, FailsALaterHandshakeAtOnceWhenTheTransportWentBefore) {
  client_->Disconnect(kTransportError);
  EXPECT_FALSE(client_->HasConnectionFailed());
  EXPECT_THAT(diary_, IsEmpty());
  Start();
  EXPECT_TRUE(client_->HasConnectionFailed());
  EXPECT_THAT(diary_, ElementsAre("connect failed: the cable was cut"));
  EXPECT_EQ(recorder_.CountSent(), 0U);
}

TEST_F(ClientTest, AnswersWhatWasRequestedWhenTheTransportWentBefore) {
  Request("a");
  client_->Disconnect(kTransportError);
  Request("b");
  EXPECT_THAT(diary_, IsEmpty());
  Start();
  const std::string failed = " failed: the cable was cut";
  EXPECT_THAT(diary_, ElementsAre("connect" + failed, "a" + failed, "b" + failed));
  EXPECT_EQ(recorder_.CountSent(), 0U);
}

TEST_F(ClientTest, DoesNotTryAgainOnTheErrorOfItsOwnEnd) {
  Start();
  EXPECT_EQ(StdoutOf([this] { client_->Disconnect(kTransportError); }), "");
  EXPECT_THAT(SentMethods(), ElementsAre("vorpc.connected"));
  EXPECT_THAT(diary_, ElementsAre("connect failed: the cable was cut"));
}

TEST_F(ClientTest, AnswersARequestMadeAfterTheEndWithItsErrorBeforeTheSendReturns) {
  Connect();
  client_->Disconnect(kTransportError);
  diary_.clear();
  Request("a");
  EXPECT_THAT(diary_, ElementsAre("a failed: the cable was cut"));
  client_->Disconnect({});
  client_.reset();
  EXPECT_THAT(diary_, ElementsAre("a failed: the cable was cut"));
}

TEST_F(ClientTest, AnswersARequestMadeAfterAnEndWithoutAnErrorWithAnUnknownOne) {
  Connect();
  client_->Disconnect({});
  std::optional<Message::Response> seen;
  client_->SendRequest("a", {}, [&seen](const auto& response) { seen = response; });
  ASSERT_TRUE(seen);
  EXPECT_EQ(*seen, Message::Response(recorder_.GetLast().GetRequest()->id, kUnknownRuntimeError));
}

TEST_F(ClientTest, StillHandsARequestMadeAfterTheEndToItsSendFunction) {
  Connect();
  client_->Disconnect(kTransportError);
  Request("a");
  EXPECT_THAT(SentMethods(), ElementsAre("vorpc.connected", "a"));
}

TEST_F(ClientTest, AnswersButNeverSendsARequestMadeAfterAFailedHandshake) {
  Start();
  client_->Disconnect(kTransportError);
  diary_.clear();
  Request("a");
  Request("vorpc.connected");
  client_->Disconnect(kTransportError);
  client_.reset();
  EXPECT_THAT(SentMethods(), ElementsAre("vorpc.connected"));
  EXPECT_THAT(diary_, ElementsAre("a failed: the cable was cut",
                                  "vorpc.connected failed: the cable was cut"));
}

TEST_F(ClientTest, AnswersARequestMadeInsideTheReportOfTheEndOnce) {
  client_->OnDisconnected([this](const auto&) { Request("late"); });
  Connect();
  Request("early");
  client_->Disconnect(kTransportError);
  const std::string failed = " failed: the cable was cut";
  EXPECT_THAT(diary_, ElementsAre("connected", "disconnected: the cable was cut", "late" + failed,
                                  "early" + failed));
}

TEST_F(ClientTest, AnswersARequestMadeInsideTheAnswerToAnotherAtTheEnd) {
  Connect();
  client_->SendRequest("a", {}, [this](const auto&) { Request("b"); });
  client_->Disconnect(kTransportError);
  EXPECT_EQ(diary_.back(), "b failed: the cable was cut");
}

TEST_F(ClientTest, GivesTheAnswerOfTheTransportRatherThanTheEndToARequestMadeAfterIt) {
  std::shared_ptr<IOwnedClient> client;
  client = IOwnedClient::Create([&client](Message&& message) {
    client->Receive(Message::CreateResponse(message.GetRequest()->id, "answered"));
  });
  client->Run();
  client->SetStarted();
  client->Disconnect(kTransportError);
  int calls = 0;
  client->SendRequest("a", {}, [&calls](const Message::Response& response) {
    EXPECT_TRUE(response.HasResult());
    ++calls;
  });
  EXPECT_EQ(calls, 1);
}

TEST_F(ClientTest, AnswersARequestMadeAfterTheEndAlsoWhenSendingItThrows) {
  bool refuse = false;
  const auto client = IOwnedClient::Create([&](Message&& message) {
    if (refuse) {
      throw std::runtime_error("refused");
    }
    recorder_.Send()(std::move(message));
  });
  client->Run();
  client->SetStarted();
  client->Receive(Message::CreateResponse(recorder_.GetLast().GetRequest()->id, {}));
  client->Disconnect(kTransportError);
  refuse = true;
  int answered = 0;
  EXPECT_THROW(client->SendRequest("a", {}, [&answered](const auto&) { ++answered; }),
               std::runtime_error);
  EXPECT_EQ(answered, 1);
}

TEST_F(ClientTest, GivesWantOfMemoryToTheCallerInPlaceOfAnyAnswer) {
  bool is_full = false;
  const auto client = IOwnedClient::Create([&](Message&& message) {
    if (is_full) {
      throw std::bad_alloc();
    }
    recorder_.Send()(std::move(message));
  });
  client->Run();
  client->SetStarted();
  client->Receive(Message::CreateResponse(recorder_.GetLast().GetRequest()->id, {}));
  is_full = true;
  const auto answered = std::make_shared<int>(0);
  EXPECT_THROW(client->SendRequest("a", {}, [answered](const auto&) { ++*answered; }),
               std::bad_alloc);
  EXPECT_EQ(answered.use_count(), 1) << "the callback is kept";
  client->Disconnect(kTransportError);
  EXPECT_EQ(*answered, 0);
}

TEST_F(ClientTest, TakesARequestWithoutACallbackAfterTheEnd) {
  Connect();
  client_->Disconnect(kTransportError);
  EXPECT_EQ(StdoutOf([this] { client_->SendRequest("a", {}, {}); }), "");
  EXPECT_THAT(SentMethods(), ElementsAre("vorpc.connected", "a"));
}

TEST_F(ClientTest, RemembersTheLastOfSeveralEndsBeforeTheHandshake) {
  client_->Disconnect(kTransportError);
  client_->Disconnect({});
  Start();
  EXPECT_THAT(diary_, ElementsAre("connect failed: Unknown runtime error"));
}

TEST_F(ClientTest, IgnoresAResponseToItsConnectRequestAfterTheEnd) {
  Start();
  client_->Disconnect({});
  const std::string log = StdoutOf([this] { AnswerLast({}); });
  EXPECT_EQ(log, "");
  EXPECT_TRUE(client_->HasConnectionFailed());
  EXPECT_FALSE(client_->IsConnected());
}

TEST_F(ClientTest, NeverSendsWhatWasQueuedWhenTheHandshakeFails) {
  client_->SendNotify("a", {});
  Start();
  client_->Disconnect(kTransportError);
  client_->SendNotify("b", {});
  EXPECT_THAT(SentMethods(), ElementsAre("vorpc.connected"));
}

TEST_F(ClientTest, KeepsNothingToSendWhenTheHandshakeFails) {
  const auto witness = std::make_shared<int>();
  client_->SendNotify("a", cw::CustomEncodableValue(witness));
  Start();
  EXPECT_EQ(witness.use_count(), 2);
  client_->Disconnect(kTransportError);
  EXPECT_EQ(witness.use_count(), 1);
  client_->SendNotify("b", cw::CustomEncodableValue(witness));
  client_->SendRequest("c", cw::CustomEncodableValue(witness), {});
  EXPECT_EQ(witness.use_count(), 1);
}

TEST_F(ClientTest, EndsFromInsideTheConnectedCallback) {
  client_->OnConnected([this](const auto&) { client_->Disconnect(kTransportError); });
  Request("a");
  Connect();
  EXPECT_THAT(diary_, ElementsAre("connected", "disconnected: the cable was cut",
                                  "a failed: the cable was cut"));
}

TEST_F(ClientTest, FiresNothingWhenItIsDestroyed) {
  Connect();
  Request("a");
  client_.reset();
  EXPECT_THAT(diary_, ElementsAre("connected"));
}

TEST_F(ClientTest, DoesNotBeginTheHandshakeOnceAbandoned) {
  client_->Run();
  client_->Abandon();
  client_->SetStarted();
  client_->Disconnect({});
  EXPECT_EQ(recorder_.CountSent(), 0U);
  EXPECT_THAT(diary_, IsEmpty());
}

TEST_F(ClientTest, KeepsNothingOnceClosed) {
  const auto witness = std::make_shared<int>();
  const auto give_callbacks = [this, &witness] {
    client_->OnConnected([witness](const auto&) {});
    client_->OnDisconnected([witness](const auto&) {});
    client_->OnNotify("tick", [witness](const auto&) {});
    client_->SendRequest("a", cw::CustomEncodableValue(witness), [witness](const auto&) {});
    client_->SendRequest("vorpc.connected", cw::CustomEncodableValue(witness),
                         [witness](const auto&) {});
    client_->SendNotify("b", cw::CustomEncodableValue(witness));
  };
  give_callbacks();
  EXPECT_GT(witness.use_count(), 6);
  client_->Abandon();
  const auto kept_by_the_recorder = witness.use_count() - 1;
  EXPECT_EQ(kept_by_the_recorder, 1);  // the connect request, which does not wait
  give_callbacks();
  EXPECT_EQ(witness.use_count() - 1, kept_by_the_recorder);
}

// The callback is let go at once even if the caller holds on to what it handed in.
TEST_F(ClientTest, EmptiesACallbackThatIsHandedInOnceClosed) {
  const auto witness = std::make_shared<int>();
  std::function<void(const Message::Response&)> callback = [witness](const auto&) {};
  client_->Abandon();
  client_->SendRequest("a", {}, std::move(callback));
  EXPECT_EQ(witness.use_count(), 1);
}

TEST(Client, WorksWithoutASendFunction) {
  const auto client = IOwnedClient::Create({});
  client->Run();
  client->SetStarted();
  client->Disconnect({});
  EXPECT_TRUE(client->HasConnectionFailed());
}

}  // namespace
}  // namespace vorpc::test_support
