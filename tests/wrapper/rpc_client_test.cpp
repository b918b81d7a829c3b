#include <gmock/gmock.h>
#include <tarv/rpc_client.h>

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "wrapper_fixture.h"

namespace tarv::test {
namespace {

using testing::Contains;
using testing::ElementsAre;
using testing::EndsWith;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::StartsWith;
using vorpc::Message;

class RpcClientWrapper : public Wrapper {
 protected:
  void Started(int code, const char* message, std::size_t chunk) const {
    fake_->client_slots.OnStarted(fake_->client_slots.user_data, code, message, chunk);
  }
  void Disconnected(int code, const char* message, std::size_t chunk) const {
    fake_->client_slots.OnDisconnect(fake_->client_slots.user_data, code, message, chunk);
  }
  void Received(const std::string& text, std::size_t chunk) const {
    fake_->client_slots.OnMessage(fake_->client_slots.user_data, text.c_str(), chunk);
  }

  // The message that the wrapper sent last.
  Message LastSent() const { return SentMessage(fake_->calls.back()); }

  // A client whose handshake is done.
  std::shared_ptr<vorpc::IClient> CreateConnectedClient() {
    auto client = CreateClient();
    Connect(*client);
    return client;
  }

  void Connect(vorpc::IClient& client) {
    client.Run();
    Started(0, "", 0);
    const Message connect = LastSent();
    Received(Message::CreateResponse(connect.GetRequest()->id, {}).ToBase64(), 1);
    EXPECT_TRUE(client.IsConnected());
    fake_->calls.clear();
  }

  // A client over a table that the test can change afterwards.
  std::shared_ptr<vorpc::IClient> CreateClientOverOwnTable() {
    const auto library = quarn::Library::Create(std::string(kFolder) + "/libtarv.so");
    TARVProcTable root{};
    library->Resolve<QuarnResult(TARVProcTable*, std::size_t)>("TARVProcTableLoad")(&root,
                                                                                    sizeof(root));
    const std::shared_ptr<RpcClient::Api> api =
        RpcClient::Api::Create(library, root.RpcClientProcTableLoad);
    table_ = const_cast<TARVRpcClientProcTable*>(&api->GetTable());
    auto client = RpcClient::Create(quarn::IDispatcher::CreateEmpty(), "worker", api,
                                    reinterpret_cast<_TARVRpcClientRef*>(13));
    fake_->calls.clear();
    return client;
  }

  TARVRpcClientProcTable* table_ = nullptr;
};

TEST_F(RpcClientWrapper, WithoutATableOrAHandleIsEmptyWithoutAWord) {
  const auto library = quarn::Library::Create(std::string(kFolder) + "/libtarv.so");
  const std::shared_ptr<RpcClient::Api> api = RpcClient::Api::Create(
      library, [](TARVRpcClientProcTable*, std::uint64_t) { return QUARN_RESULT_SUCCESS; });
  auto* const handle = reinterpret_cast<_TARVRpcClientRef*>(7);
  EXPECT_EQ(OutputOfFailure([&] { return RpcClient::Create(nullptr, "w", nullptr, handle); }), "");
  EXPECT_EQ(OutputOfFailure([&] { return RpcClient::Create(nullptr, "w", api, nullptr); }), "");
}

TEST_F(RpcClientWrapper, ChecksItsEntriesInOrderAndNamesTheFirstThatIsMissing) {
  const auto output = [] {
    return OutputOfFailure([] { return CreateManager()->CreateIpcClient("worker"); });
  };
  fake_->null_entries = {"SendMessage", "StartTask", "UnlockResources", "client Release"};
  EXPECT_THAT(output(), IsMissing("SendMessage"));
  fake_->null_entries.erase("SendMessage");
  EXPECT_THAT(output(), IsMissing("StartTask"));
  fake_->null_entries.erase("StartTask");
  EXPECT_THAT(output(), IsMissing("UnlockResources"));
  fake_->null_entries.erase("UnlockResources");
  EXPECT_THAT(output(), IsMissing("Release"));
}

TEST_F(RpcClientWrapper, OfEachSizeOfATableNamesTheFirstEntryThatIsBeyondIt) {
  // The last two are of this library and of a newer one.
  const std::vector<std::pair<std::uint64_t, std::string>> cases = {{8, "SendMessage"},
                                                                    {16, "SendMessage"},
                                                                    {24, "SendMessage"},
                                                                    {31, "SendMessage"},
                                                                    {32, "Release"},
                                                                    {39, "Release"},
                                                                    {40, ""},
                                                                    {80, ""}};
  for (const auto& [size, missing] : cases) {
    SCOPED_TRACE(size);
    fake_->client_size = size;
    ExpectMissing(missing, [] { return CreateManager()->CreateIpcClient("worker"); });
  }
}

TEST_F(RpcClientWrapper, StartsTheTaskWithTheFolderOfTheLibraryAndItsOwnSlots) {
  const auto manager = CreateManager();
  const auto client = manager->CreateIpcClient("worker");
  EXPECT_EQ(fake_->calls.back(), "StartTask(13, 'worker', '" + std::string(kFolder) + "')");
  EXPECT_EQ(fake_->client_slots.size, 48U);
  EXPECT_NE(fake_->client_slots.OnStarted, nullptr);
  EXPECT_NE(fake_->client_slots.OnDisconnect, nullptr);
  EXPECT_NE(fake_->client_slots.OnMessage, nullptr);
  EXPECT_EQ(fake_->client_slots.Release, nullptr);
}

TEST_F(RpcClientWrapper, WhoseStartIsRefusedIsEmptyAndReleasesTheServicesClient) {
  fake_->failing = {"StartTask"};
  const auto manager = CreateManager();
  EXPECT_EQ(OutputOfFailure([&] { return manager->CreateIpcClient("worker"); }), "");
  EXPECT_EQ(fake_->calls.back(), "ReleaseClient(13)");
}

TEST_F(RpcClientWrapper, ShakesHandsOnceBothRunAndStartHaveHappened) {
  const auto client = CreateClient();
  client->Run();
  EXPECT_THAT(fake_->calls, IsEmpty());
  Started(0, "", 0);
  ASSERT_EQ(fake_->calls.size(), 1U);
  EXPECT_TRUE(LastSent().IsRequest("vorpc.connected"));
}

TEST_F(RpcClientWrapper, NamesTheTaskWhoseMessageNobodyWaitsFor) {
  const auto client = CreateConnectedClient();
  const std::string lines =
      StdoutOf([this] { Received(Message::CreateResponse(Message::ID("id7"), {}).ToBase64(), 1); });
  EXPECT_THAT(lines, HasSubstr("[RPC Receiver]: unhandled message\n"));
  EXPECT_THAT(lines, EndsWith(" [RPC Receiver]: nobody here waits for the response to id7 from "
                              "the task 'worker'\n"));
}

TEST_F(RpcClientWrapper, NamesTheTaskOfWhoseTextNoMessageCanBeMadeAndQuotesItEscaped) {
  const auto client = CreateConnectedClient();
  const std::string lines = StdoutOf([this] { Received("\x1b[2J\n" + std::string(200, 'x'), 1); });
  EXPECT_THAT(lines, HasSubstr("No message can be made of 205 bytes from the task 'worker'; they "
                               "begin with: \\x1b[2J\\n" +
                               std::string(75, 'x') + "\n"));
  EXPECT_THAT(lines, EndsWith("[RPC Receiver]: unhandled message\n"));
}

TEST_F(RpcClientWrapper, SendsRequestsAndHandsResponsesToTheirCallbacks) {
  const auto client = CreateConnectedClient();
  cw::EncodableValue result;
  client->SendRequest("add", cw::EncodableList{1, 2}, [&result](const Message::Response& response) {
    result = *response.GetResult();
  });
  const Message request = LastSent();
  ASSERT_TRUE(request.IsRequest("add"));
  EXPECT_EQ(request.GetRequest()->params, cw::EncodableValue(cw::EncodableList{1, 2}));
  Received(Message::CreateResponse(request.GetRequest()->id, 3).ToBase64(), 77);
  EXPECT_EQ(result, cw::EncodableValue(3));
  EXPECT_EQ(fake_->calls.back(), "Unlock(13, 77)");
}

TEST_F(RpcClientWrapper, IgnoresTheResultOfASend) {
  const auto client = CreateConnectedClient();
  fake_->failing = {"SendMessage"};
  client->SendNotify("tick", {});
  EXPECT_TRUE(client->IsConnected());
}

TEST_F(RpcClientWrapper, SendWithoutTheEntryLogsThatItIsNotProvided) {
  const auto client = CreateClientOverOwnTable();
  Started(0, "", 0);
  table_->SendMessage = nullptr;
  EXPECT_THAT(StdoutOf([&client] { client->Run(); }), IsMissing("SendMessage"));
  EXPECT_THAT(fake_->calls, IsEmpty());
}

TEST_F(RpcClientWrapper, SendBeyondTheSizeOfTheTableLogsThatItIsNotProvided) {
  const auto client = CreateClientOverOwnTable();
  Started(0, "", 0);
  table_->size = 31;
  EXPECT_THAT(StdoutOf([&client] { client->Run(); }), IsMissing("SendMessage"));
  EXPECT_THAT(fake_->calls, IsEmpty());
}

TEST_F(RpcClientWrapper, MessageWithoutTheUnlockEntryLogsThatItIsNotProvided) {
  const auto client = CreateClientOverOwnTable();
  std::vector<std::string> heard;
  client->OnNotify("tick",
                   [&heard](const auto& notification) { heard.push_back(notification.method); });
  Connect(*client);
  table_->UnlockResources = nullptr;
  const std::string tick = Message::CreateNotification("tick", {}).ToBase64();
  EXPECT_THAT(StdoutOf([&] { Received(tick, 5); }), IsMissing("UnlockResources"));
  EXPECT_THAT(heard, ElementsAre("tick"));
  EXPECT_THAT(fake_->calls, IsEmpty());
}

TEST_F(RpcClientWrapper, DisconnectWithoutTheUnlockEntryLogsThatItIsNotProvided) {
  const auto client = CreateClientOverOwnTable();
  Connect(*client);
  int disconnects = 0;
  client->OnDisconnected([&disconnects](const auto&) { ++disconnects; });
  table_->size = 23;
  EXPECT_THAT(StdoutOf([this] { Disconnected(0, "", 5); }), IsMissing("UnlockResources"));
  EXPECT_EQ(disconnects, 1);
  EXPECT_THAT(fake_->calls, IsEmpty());
}

TEST_F(RpcClientWrapper, LetGoInsideASendSendsNothingMore) {
  auto client = CreateClient();
  client->SendNotify("first", {});
  client->SendNotify("second", {});
  client->Run();
  Started(0, "", 0);
  const Message connect = LastSent();
  fake_->calls.clear();
  // The first message that had to wait lets the client go while the second still waits.
  fake_->on_send = [&client] { client.reset(); };
  Received(Message::CreateResponse(connect.GetRequest()->id, {}).ToBase64(), 1);
  EXPECT_THAT(fake_->calls, ElementsAre(StartsWith("Send("), "Unlock(13, 1)", "ReleaseClient(13)"));
}

TEST_F(RpcClientWrapper, SendAfterTheTableIsGoneSendsNothing) {
  auto client = CreateConnectedClient();
  vorpc::IClient* const handle = client.get();
  // The table goes inside the first send; the JSON-RPC client is still in the middle of it.
  fake_->on_send = [this, &client] {
    fake_->on_send = nullptr;
    client.reset();
    manager_.reset();
  };
  handle->SendNotify("first", {});
  EXPECT_THAT(fake_->calls,
              ElementsAre(StartsWith("Send("), "ReleaseClient(13)", "ReleaseManager(11)"));
}

TEST_F(RpcClientWrapper, ReleaseIsNotCheckedAgain) {
  auto client = CreateClientOverOwnTable();
  table_->size = 8;
  EXPECT_EQ(StdoutOf([&client] { client.reset(); }), "");
  EXPECT_THAT(fake_->calls, ElementsAre("ReleaseClient(13)"));
}

TEST_F(RpcClientWrapper, EmptyTextIsNotDecodedAndItsChunkIsStillUnlocked) {
  const auto client = CreateConnectedClient();  // what is decoded would reach it now
  EXPECT_EQ(StdoutOf([this] { Received("", 5); }), "");
  EXPECT_THAT(fake_->calls, ElementsAre("Unlock(13, 5)"));
}

TEST_F(RpcClientWrapper, UndecodableTextIsUnlockedToo) {
  const auto client = CreateConnectedClient();
  StdoutOf([this] { Received("%%% no message %%%", 6); });
  EXPECT_THAT(fake_->calls, ElementsAre("Unlock(13, 6)"));
}

TEST_F(RpcClientWrapper, NullTextIsALogicErrorAndItsChunkIsStillUnlocked) {
  const auto client = CreateClient();
  EXPECT_THROW(fake_->client_slots.OnMessage(fake_->client_slots.user_data, nullptr, 8),
               std::logic_error);
  EXPECT_THAT(fake_->calls, ElementsAre("Unlock(13, 8)"));
}

TEST_F(RpcClientWrapper, ExceptionOfACallbackReachesTheServiceAndTheChunkIsStillUnlocked) {
  const auto client = CreateConnectedClient();
  client->OnNotify("tick", [](const Message::Notification&) { throw std::runtime_error("no"); });
  EXPECT_THROW(Received(Message::CreateNotification("tick", {}).ToBase64(), 9), std::runtime_error);
  EXPECT_THAT(fake_->calls, ElementsAre("Unlock(13, 9)"));
}

TEST_F(RpcClientWrapper, FailedStartFailsTheConnectionWithTheServicesErrorAndUnlocks) {
  const auto client = CreateClient();
  std::optional<Message::Error> error;
  client->OnConnected([&error](const auto& outcome) { error = outcome; });
  client->Run();
  Started(-32603, "no such task", 10);
  EXPECT_TRUE(client->HasConnectionFailed());
  EXPECT_EQ(error, Message::Error(-32603, "no such task"));
  EXPECT_THAT(fake_->calls, ElementsAre("Unlock(13, 10)"));
}

TEST_F(RpcClientWrapper, ExceptionOfAFailedStartStillUnlocks) {
  const auto client = CreateClient();
  client->OnConnected([](const auto&) { throw std::runtime_error("no"); });
  client->Run();
  EXPECT_THROW(Started(-32603, "no such task", 10), std::runtime_error);
  EXPECT_THAT(fake_->calls, ElementsAre("Unlock(13, 10)"));
  EXPECT_TRUE(client->HasConnectionFailed());
}

TEST_F(RpcClientWrapper, FailedStartWithoutAChunkUnlocksNothing) {
  const auto client = CreateClient();
  client->Run();
  Started(-32603, "no such task", 0);
  EXPECT_TRUE(client->HasConnectionFailed());
  EXPECT_THAT(fake_->calls, IsEmpty());
}

TEST_F(RpcClientWrapper, FailedStartBeforeRunFailsTheConnectionAtRun) {
  const auto client = CreateClient();
  Started(-32603, "no such task", 10);
  std::optional<Message::Error> error;
  client->OnConnected([&error](const auto& outcome) { error = outcome; });
  client->Run();
  EXPECT_EQ(error, Message::Error(-32603, "no such task"));
  EXPECT_TRUE(client->HasConnectionFailed());
}

TEST_F(RpcClientWrapper, StartWithoutAChunkUnlocksNothing) {
  const auto client = CreateClient();
  Started(0, "", 0);
  EXPECT_THAT(fake_->calls, IsEmpty());
}

TEST_F(RpcClientWrapper, LostTaskFailsPendingRequestsWithTheReason) {
  const auto client = CreateConnectedClient();
  std::optional<Message::Error> pending;
  std::optional<Message::Error> disconnected;
  client->OnDisconnected([&disconnected](const auto& error) { disconnected = error; });
  client->SendRequest(
      "add", {}, [&pending](const Message::Response& response) { pending = *response.GetError(); });
  Disconnected(-32603, "the task was killed", 12);
  EXPECT_EQ(pending, Message::Error(-32603, "the task was killed"));
  EXPECT_EQ(disconnected, Message::Error(-32603, "the task was killed"));
  EXPECT_EQ(fake_->calls.back(), "Unlock(13, 12)");
}

TEST_F(RpcClientWrapper, OrderlyDisconnectHasNoErrorAndUnlocksWhateverTheChunk) {
  const auto client = CreateConnectedClient();
  int disconnects = 0;
  client->OnDisconnected([&disconnects](const auto& error) {
    EXPECT_FALSE(error);
    ++disconnects;
  });
  Disconnected(0, "", 0);
  EXPECT_EQ(disconnects, 1);
  EXPECT_THAT(fake_->calls, ElementsAre("Unlock(13, 0)"));
}

TEST_F(RpcClientWrapper, StartsAndForgetsRequestsByTheirIds) {
  const auto client = CreateConnectedClient();
  auto* const requests = dynamic_cast<vorpc::IRequests*>(client.get());
  ASSERT_NE(requests, nullptr);
  bool answered = false;
  const auto id = requests->StartRequest("a", 5, [&](const auto&) { answered = true; });
  EXPECT_EQ(LastSent(), Message::CreateRequest(id, "a", 5));
  const auto forgotten = requests->StartRequest("b", {}, [](const auto&) { ADD_FAILURE(); });
  EXPECT_TRUE(requests->ForgetRequest(forgotten));
  EXPECT_FALSE(requests->ForgetRequest(forgotten));
  Received(Message::CreateResponse(id, {}).ToBase64(), 1);
  EXPECT_EQ(StdoutOf([&] { Received(Message::CreateResponse(forgotten, {}).ToBase64(), 2); }), "");
  EXPECT_TRUE(answered);
}

TEST_F(RpcClientWrapper, ReleasesTheServicesClientOnceWhenItDies) {
  auto client = CreateClient();
  client.reset();
  EXPECT_THAT(fake_->calls, ElementsAre("ReleaseClient(13)"));
}

TEST_F(RpcClientWrapper, CallbacksForAClientThatIsGoneDoNothingAndUnlockNothing) {
  auto client = CreateClient();
  client.reset();
  fake_->calls.clear();
  Started(0, "", 3);
  Received("text", 4);
  Disconnected(-1, "text", 5);
  EXPECT_THAT(fake_->calls, IsEmpty());
}

TEST_F(RpcClientWrapper, MayDieInsideEachOfItsCallbacks) {
  for (const std::string callback : {"connected", "notify", "response", "disconnected"}) {
    SCOPED_TRACE(callback);
    auto client = CreateClient();
    const auto drop_at = [&client, &callback](const std::string& here) {
      if (here == callback) {
        client.reset();
      }
    };
    client->OnConnected([&](const auto&) { drop_at("connected"); });
    client->OnDisconnected([&](const auto&) { drop_at("disconnected"); });
    client->OnNotify("tick", [&](const auto&) { drop_at("notify"); });
    client->Run();
    Started(0, "", 0);
    Received(Message::CreateResponse(LastSent().GetRequest()->id, {}).ToBase64(), 1);
    if (client) {
      client->SendRequest("add", {}, [&](const auto&) { drop_at("response"); });
      const Message request = LastSent();
      Received(Message::CreateNotification("tick", {}).ToBase64(), 2);
      Received(Message::CreateResponse(request.GetRequest()->id, {}).ToBase64(), 3);
      Disconnected(-1, "gone", 4);
    }
    EXPECT_FALSE(client);
    EXPECT_THAT(fake_->calls, Contains("ReleaseClient(13)"));
  }
}

TEST_F(RpcClientWrapper, UnlocksTheTextOfItsStartBeforeItShakesHands) {
  const auto client = CreateClient();
  client->Run();
  Started(0, "", 5);
  EXPECT_THAT(fake_->calls, ElementsAre("Unlock(13, 5)", StartsWith("Send(13, ")));
}

TEST_F(RpcClientWrapper, MessageUnlocksItsChunkWhateverItsNumber) {
  const auto client = CreateConnectedClient();
  client->OnNotify("tick", [](const auto&) {});
  Received(Message::CreateNotification("tick", {}).ToBase64(), 0);
  EXPECT_THAT(fake_->calls, ElementsAre("Unlock(13, 0)"));
}

}  // namespace
}  // namespace tarv::test
