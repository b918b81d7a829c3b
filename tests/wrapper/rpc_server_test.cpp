#include <gmock/gmock.h>
#include <tarv/rpc_server.h>

#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <memory>
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
using testing::IsSupersetOf;
using testing::StartsWith;
using vorpc::Message;

class RpcServerWrapper : public Wrapper {
 protected:
  void Started(std::size_t chunk) const {
    fake_->server_slots.OnStarted(fake_->server_slots.user_data, 0, "", chunk);
  }
  void Received(const std::string& text, std::size_t chunk) const {
    fake_->server_slots.OnMessage(fake_->server_slots.user_data, text.c_str(), chunk);
  }
  Message LastSent() const { return SentMessage(fake_->calls.back()); }

  static std::string ConnectRequest() {
    return Message::CreateRequest(Message::ID(1), "vorpc.connected", {}).ToBase64();
  }

  // A server whose handshake is done.
  std::shared_ptr<vorpc::IServer> CreateConnectedServer() {
    auto server = CreateServer();
    server->Run();
    Started(0);
    Received(ConnectRequest(), 0);
    fake_->calls.clear();
    return server;
  }
};

TEST_F(RpcServerWrapper, NamesTheTaskInLinesAboutItsStartersMessages) {
  const auto server = CreateConnectedServer();
  const std::string task = std::string("the starter of the task '") + program_invocation_short_name;
  EXPECT_THAT(StdoutOf([this] { Received("garbage!", 1); }),
              HasSubstr("No message can be made of 8 bytes from " + task +
                        "'; they begin with: garbage!\n"));
  EXPECT_THAT(StdoutOf([this] { Received(Message::CreateNotification("ping", {}).ToBase64(), 1); }),
              EndsWith("nobody here waits for the notification 'ping' from " + task + "'\n"));
}

TEST_F(RpcServerWrapper, WithoutATableOrAHandleIsEmptyWithoutAWord) {
  const auto library = quarn::Library::Create(std::string(kFolder) + "/libtarv.so");
  const std::shared_ptr<RpcServer::Api> api = RpcServer::Api::Create(
      library, [](TARVRpcServerProcTable*, std::uint64_t) { return QUARN_RESULT_SUCCESS; });
  auto* const handle = reinterpret_cast<_TARVRpcServerRef*>(7);
  EXPECT_EQ(OutputOfFailure([&] { return RpcServer::Create(nullptr, nullptr, handle); }), "");
  EXPECT_EQ(OutputOfFailure([&] { return RpcServer::Create(nullptr, api, nullptr); }), "");
}

TEST_F(RpcServerWrapper, ChecksItsEntriesInOrderAndNamesTheFirstThatIsMissing) {
  const auto output = [] {
    return OutputOfFailure([] { return CreateManager()->CreateRpcServer(); });
  };
  fake_->null_entries = {"Run", "SendMessage", "UnlockResources"};
  EXPECT_THAT(output(), IsMissing("Run"));
  fake_->null_entries.erase("Run");
  EXPECT_THAT(output(), IsMissing("SendMessage"));
  fake_->null_entries.erase("SendMessage");
  EXPECT_THAT(output(), IsMissing("UnlockResources"));
}

TEST_F(RpcServerWrapper, OfEachSizeOfATableNamesTheFirstEntryThatIsBeyondIt) {
  // The last two are of this library and of a newer one.
  const std::vector<std::pair<std::uint64_t, std::string>> cases = {
      {8, "Run"}, {15, "Run"}, {16, "SendMessage"}, {24, "SendMessage"}, {31, "SendMessage"},
      {32, ""},   {64, ""}};
  for (const auto& [size, missing] : cases) {
    SCOPED_TRACE(size);
    fake_->server_size = size;
    ExpectMissing(missing, [] { return CreateManager()->CreateRpcServer(); });
  }
}

TEST_F(RpcServerWrapper, RunHandsItsSlotsToTheService) {
  const auto server = CreateServer();
  server->Run();
  EXPECT_THAT(fake_->calls, ElementsAre("Run(14)"));
  EXPECT_EQ(fake_->server_slots.size, 40U);
  EXPECT_NE(fake_->server_slots.OnStarted, nullptr);
  EXPECT_NE(fake_->server_slots.OnMessage, nullptr);
  EXPECT_EQ(fake_->server_slots.Release, nullptr);
}

TEST_F(RpcServerWrapper, AnswersTheHandshakeOnceTheServiceHasStarted) {
  const auto server = CreateServer();
  server->Run();
  Received(Message::CreateRequest(Message::ID(1), "vorpc.connected", {}).ToBase64(), 2);
  EXPECT_EQ(fake_->calls.back(), "Unlock(14, 2)");
  Started(0);
  const Message answer = LastSent();
  ASSERT_NE(answer.GetResponse(), nullptr);
  EXPECT_EQ(answer.GetResponse()->id, Message::ID(1));
  EXPECT_TRUE(answer.GetResponse()->HasResult());
}

TEST_F(RpcServerWrapper, StartWithAChunkUnlocksIt) {
  const auto server = CreateServer();
  server->Run();
  Started(21);
  EXPECT_EQ(fake_->calls.back(), "Unlock(14, 21)");
}

TEST_F(RpcServerWrapper, ServesRequests) {
  const auto server = CreateServer();
  server->OnRequest("double", [](const std::string&, const cw::EncodableValue& params,
                                 std::unique_ptr<vorpc::IReply>&& reply) {
    reply->SendResult(2 * std::get<std::int32_t>(params));
  });
  server->Run();
  Started(0);
  Received(Message::CreateRequest(Message::ID(1), "vorpc.connected", {}).ToBase64(), 2);
  fake_->calls.clear();
  Received(Message::CreateRequest(Message::ID(2), "double", 21).ToBase64(), 3);
  ASSERT_EQ(fake_->calls.size(), 2U);
  EXPECT_EQ(fake_->calls.back(), "Unlock(14, 3)");
  fake_->calls.pop_back();
  EXPECT_EQ(*LastSent().GetResponse()->GetResult(), cw::EncodableValue(42));
}

TEST_F(RpcServerWrapper, StartWithACodeRunsAllTheSame) {
  const auto server = CreateServer();
  server->Run();
  Received(ConnectRequest(), 0);
  EXPECT_THAT(fake_->calls, ElementsAre("Run(14)"));
  fake_->server_slots.OnStarted(fake_->server_slots.user_data, -32603, "not looked at", 0);
  ASSERT_EQ(fake_->calls.size(), 2U);
  EXPECT_TRUE(LastSent().GetResponse()->HasResult());
}

TEST_F(RpcServerWrapper, ServesRequestsByAHandlerRegisteredAfterRun) {
  const auto server = CreateConnectedServer();
  server->OnRequest("late",
                    [](const std::string&, const cw::EncodableValue&,
                       std::unique_ptr<vorpc::IReply>&& reply) { reply->SendResult("ok"); });
  Received(Message::CreateRequest(Message::ID(2), "late", {}).ToBase64(), 0);
  EXPECT_EQ(*LastSent().GetResponse()->GetResult(), cw::EncodableValue("ok"));
}

TEST_F(RpcServerWrapper, UndecodableTextIsUnlockedToo) {
  const auto server = CreateConnectedServer();
  StdoutOf([this] { Received("%%% no message %%%", 6); });
  EXPECT_THAT(fake_->calls, ElementsAre("Unlock(14, 6)"));
}

TEST_F(RpcServerWrapper, NullTextIsALogicErrorAndItsChunkIsStillUnlocked) {
  const auto server = CreateConnectedServer();
  EXPECT_THROW(fake_->server_slots.OnMessage(fake_->server_slots.user_data, nullptr, 8),
               std::logic_error);
  EXPECT_THAT(fake_->calls, ElementsAre("Unlock(14, 8)"));
}

TEST_F(RpcServerWrapper, ExceptionOfAHandlerReachesTheServiceAndTheChunkIsStillUnlocked) {
  const auto server = CreateConnectedServer();
  server->OnNotify("tick", [](const Message::Notification&) { throw std::runtime_error("no"); });
  EXPECT_THROW(Received(Message::CreateNotification("tick", {}).ToBase64(), 9), std::runtime_error);
  EXPECT_THAT(fake_->calls, ElementsAre("Unlock(14, 9)"));
}

TEST_F(RpcServerWrapper, MayDieInsideEachOfItsCallbacks) {
  for (const std::string callback : {"connected", "notify", "request"}) {
    SCOPED_TRACE(callback);
    auto server = CreateServer();
    const auto drop_at = [&server, &callback](const std::string& here) {
      EXPECT_TRUE(server) << "a callback after the end: " << here;
      if (here == callback) {
        server.reset();
      }
    };
    server->OnConnected([&](const auto&) { drop_at("connected"); });
    server->OnNotify("tick", [&](const auto&) { drop_at("notify"); });
    server->OnRequest("ask", [&](const auto&, const auto&, auto&&) { drop_at("request"); });
    server->Run();
    Started(1);
    Received(ConnectRequest(), 2);
    Received(Message::CreateNotification("tick", {}).ToBase64(), 3);
    Received(Message::CreateRequest(Message::ID(2), "ask", {}).ToBase64(), 4);
    EXPECT_FALSE(server);
    // What came to a server that was still there has been unlocked.
    EXPECT_THAT(fake_->calls, IsSupersetOf({"Unlock(14, 1)", "Unlock(14, 2)"}));
    EXPECT_EQ(testing::Value(fake_->calls, Contains("Unlock(14, 3)")), callback != "connected");
    EXPECT_EQ(testing::Value(fake_->calls, Contains("Unlock(14, 4)")), callback == "request");
  }
}

TEST_F(RpcServerWrapper, MessageWithoutAChunkUnlocksNothing) {
  const auto server = CreateServer();
  server->Run();
  fake_->calls.clear();
  Received(Message::CreateNotification("tick", {}).ToBase64(), 0);
  EXPECT_THAT(fake_->calls, IsEmpty());
}

TEST_F(RpcServerWrapper, EmptyTextIsNotDecodedAndItsChunkIsStillUnlocked) {
  const auto server = CreateConnectedServer();  // what is decoded would reach it now
  EXPECT_EQ(StdoutOf([this] { Received("", 5); }), "");
  EXPECT_THAT(fake_->calls, ElementsAre("Unlock(14, 5)"));
}

TEST_F(RpcServerWrapper, DestroyedBeforeRunLeavesTheServiceUntouched) {
  auto server = CreateServer();
  server.reset();
  EXPECT_THAT(fake_->calls, IsEmpty());
}

TEST_F(RpcServerWrapper, CallbacksForAServerThatIsGoneDoNothing) {
  auto server = CreateServer();
  server->Run();
  server.reset();
  fake_->calls.clear();
  Started(3);
  Received("text", 4);
  EXPECT_THAT(fake_->calls, IsEmpty());
}

TEST_F(RpcServerWrapper, ReplyThatOutlivesTheServerSendsNothing) {
  auto server = CreateServer();
  std::unique_ptr<vorpc::IReply> late;
  server->OnRequest("slow",
                    [&late](const std::string&, const cw::EncodableValue&,
                            std::unique_ptr<vorpc::IReply>&& reply) { late = std::move(reply); });
  server->Run();
  Started(0);
  Received(Message::CreateRequest(Message::ID(1), "vorpc.connected", {}).ToBase64(), 0);
  Received(Message::CreateRequest(Message::ID(2), "slow", {}).ToBase64(), 0);
  server.reset();
  fake_->calls.clear();
  late->SendResult({});
  EXPECT_THAT(fake_->calls, IsEmpty());
}

TEST_F(RpcServerWrapper, UnlocksTheTextOfItsStartBeforeItAnswersTheHandshake) {
  const auto server = CreateServer();
  server->Run();
  Received(ConnectRequest(), 0);
  fake_->calls.clear();
  Started(21);
  EXPECT_THAT(fake_->calls, ElementsAre("Unlock(14, 21)", StartsWith("Send(14, ")));
}

TEST_F(RpcServerWrapper, IgnoresTheResultOfASend) {
  const auto server = CreateConnectedServer();
  fake_->failing = {"SendMessage"};
  EXPECT_EQ(StdoutOf([&] { server->SendNotify("tick", {}); }), "");
  EXPECT_THAT(fake_->calls, ElementsAre(StartsWith("Send(14, ")));
}

}  // namespace
}  // namespace tarv::test
