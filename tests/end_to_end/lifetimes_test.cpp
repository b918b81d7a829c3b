// Clients, servers and managers may go in any order, at any moment, from inside any callback.

#include <gmock/gmock.h>
#include <quarn/dispatcher.h>
#include <signal.h>
#include <tarv/task_client.h>

#include <fstream>
#include <string>
#include <tuple>

#include "application.h"
#include "support/capture.h"

namespace tarv::test {
namespace {

using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;

constexpr std::chrono::milliseconds kAWhile(50);

// ---- In the application

enum class Moment {
  kAtOnce,
  kOnceConnected,
  kWithARequestPending,
  kInOnConnected,
  kInOnConnectedOfAFailure,
  kInAResponse,
  kInANotification,
  kInOnDisconnected,
  kInAFailedResponse,
};
constexpr const char* kMomentNames[] = {
    "AtOnce",          "OnceConnected",           "WithARequestPending",
    "InOnConnected",   "InOnConnectedOfAFailure", "InAResponse",
    "InANotification", "InOnDisconnected",        "InAFailedResponse"};

enum class Order { kClientFirst, kManagerFirst };

using Case = std::tuple<Moment, Order>;

class EndsInApplication : public EndToEndTest, public testing::WithParamInterface<Case> {
 protected:
  static Moment GetMoment() { return std::get<0>(GetParam()); }

  void Prepare() {
    client_ = manager_wrapper_->CreateIpcClient(
        GetMoment() == Moment::kInOnConnectedOfAFailure ? "no-such-task" : "worker");
    client_->OnConnected([this](const OptionalError& error) {
      Happen(error ? Moment::kInOnConnectedOfAFailure : Moment::kInOnConnected);
    });
    client_->OnDisconnected(
        [this](const OptionalError& /*error*/) { Happen(Moment::kInOnDisconnected); });
    client_->OnNotify("early",
                      [this](const auto& /*notification*/) { Happen(Moment::kInANotification); });
    Request("echo");
    Request("hold");
    client_->Run();
  }

  void Request(const char* method) {
    client_->SendRequest(method, {}, [this](const Response& response) {
      Happen(response.IsError() ? Moment::kInAFailedResponse : Moment::kInAResponse);
    });
  }

  // A callback came. None may after the end.
  void Happen(Moment moment) {
    EXPECT_FALSE(ended_) << "a callback after the end: " << kMomentNames[static_cast<int>(moment)];
    if (moment == GetMoment()) {
      End();
    } else if (moment == Moment::kInAResponse) {
      OnAnswered();
    }
  }

  // The task has answered one request and holds the other.
  void OnAnswered() {
    answered_ = true;
    if (GetMoment() == Moment::kInOnDisconnected || GetMoment() == Moment::kInAFailedResponse) {
      kill(Children().at(0), SIGKILL);
    }
  }

  void End() {
    ended_ = true;
    if (std::get<1>(GetParam()) == Order::kClientFirst) {
      client_.reset();
      manager_wrapper_.reset();
    } else {
      manager_wrapper_.reset();
      client_.reset();
    }
  }

  // Brings about the moments that are no callback's.
  void EndOutside() {
    if (GetMoment() == Moment::kAtOnce) {
      End();
    } else if (GetMoment() == Moment::kOnceConnected) {
      ASSERT_TRUE(WaitUntil([this] { return client_->IsConnected(); }));
      End();
    } else if (GetMoment() == Moment::kWithARequestPending) {
      ASSERT_TRUE(WaitUntil([this] { return answered_; }));
      End();
    }
  }

  std::shared_ptr<vorpc::IClient> client_;
  bool answered_ = false;
  bool ended_ = false;
};

std::string NameOfCase(const testing::TestParamInfo<Case>& info) {
  const bool client_first = std::get<1>(info.param) == Order::kClientFirst;
  return std::string(client_first ? "Client" : "Manager") + "First" +
         kMomentNames[static_cast<int>(std::get<0>(info.param))];
}

INSTANTIATE_TEST_SUITE_P(
    EveryMoment, EndsInApplication,
    testing::Combine(testing::Values(Moment::kAtOnce, Moment::kOnceConnected,
                                     Moment::kWithARequestPending, Moment::kInOnConnected,
                                     Moment::kInOnConnectedOfAFailure, Moment::kInAResponse,
                                     Moment::kInANotification, Moment::kInOnDisconnected,
                                     Moment::kInAFailedResponse),
                     testing::Values(Order::kClientFirst, Order::kManagerFirst)),
    NameOfCase);

TEST_P(EndsInApplication, CallNothingAfterwardsAndLeaveNoTask) {
  Prepare();
  EndOutside();
  ASSERT_TRUE(WaitUntil([this] { return ended_; }));
  RunEvents(kAWhile);
  EXPECT_TRUE(WaitUntil([] { return Children().empty(); }));
}

class Lifetimes : public EndToEndTest {
 protected:
  static std::unique_ptr<ManagerWrapper> NewManager() {
    return ManagerWrapper::Create(quarn::IDispatcher::CreateEmpty(), LibraryFolder());
  }
};

TEST_F(Lifetimes, OfAClientMayEndInsideAnotherClientsCallback) {
  auto first = StartConnected();
  const auto second = StartConnected();
  bool told = false;
  second->client->SendRequest("echo", {}, [&first, &told](const Response& /*response*/) {
    first.reset();
    told = true;
  });
  EXPECT_TRUE(WaitUntil([&told] { return told; }));
  EXPECT_EQ(second->Ask("echo", 1), cw::EncodableValue(1));
}

TEST_F(Lifetimes, OfAClientEndForTheOtherSubscribersOfTheSameNews) {
  const auto connection = Start();
  int calls = 0;
  for (int i = 0; i < 3; ++i) {
    connection->client->OnNotify("early", [&connection, &calls](const auto& /*notification*/) {
      ++calls;
      connection->client.reset();
    });
  }
  connection->client->Run();
  EXPECT_TRUE(WaitUntil([&calls] { return calls > 0; }));
  RunEvents(kAWhile);
  EXPECT_EQ(calls, 1);
}

TEST_F(Lifetimes, OfAManagerCanBeginAgain) {
  auto connection = StartConnected();
  connection.reset();
  manager_wrapper_ = nullptr;
  manager_wrapper_ = NewManager();
  EXPECT_EQ(StartConnected()->Ask("echo", 1), cw::EncodableValue(1));
}

TEST_F(Lifetimes, OfOneManagerEndTheServiceForAllAndTheirClientsStayWhole) {
  auto other = NewManager();
  const auto connection = StartConnected();
  connection->Send("hold");
  other.reset();
  EXPECT_TRUE(WaitUntil([] { return Children().empty(); }));
  connection->client->SendNotify("say", "to nobody");
  connection->Send("echo");
  RunEvents(kAWhile);
  EXPECT_TRUE(connection->record->responses.empty());
}

class ManagersEnd : public Lifetimes {
 protected:
  // Notes whose end the client hears of.
  void Hear(const std::shared_ptr<vorpc::IClient>& client) {
    dynamic_cast<ITaskClient&>(*client).OnManagerEnded(
        [this](EndedManager manager) { heard_.push_back(manager); });
  }

  std::vector<EndedManager> heard_;
};

TEST_F(ManagersEnd, IsToldToTheClientsOfAll) {
  auto other = NewManager();
  const auto first = manager_wrapper_->CreateIpcClient("worker");
  const auto second = other->CreateIpcClient("worker");
  EXPECT_EQ(dynamic_cast<ITaskClient&>(*first).GetTaskName(), "worker");
  Hear(first);
  Hear(second);
  other.reset();
  EXPECT_THAT(heard_, testing::ElementsAre(EndedManager::kAnother, EndedManager::kOwn));
  Hear(first);  // late, and at once
  EXPECT_EQ(heard_.size(), 3U);
  manager_wrapper_.reset();
  EXPECT_EQ(heard_.size(), 3U) << "a second end";
}

TEST_F(ManagersEnd, IsNotToldToClientsThatCameAfterIt) {
  NewManager().reset();
  Hear(manager_wrapper_->CreateIpcClient("worker"));  // let go at once
  const auto kept = manager_wrapper_->CreateIpcClient("worker");
  Hear(kept);
  EXPECT_THAT(heard_, IsEmpty());
  manager_wrapper_.reset();
  EXPECT_THAT(heard_, testing::ElementsAre(EndedManager::kOwn));
}

TEST_F(ManagersEnd, MayLetGoOfItsClientsAndMayThrow) {
  auto first = manager_wrapper_->CreateIpcClient("worker");
  auto second = manager_wrapper_->CreateIpcClient("worker");
  auto third = manager_wrapper_->CreateIpcClient("worker");
  dynamic_cast<ITaskClient&>(*first).OnManagerEnded([&first, &second](EndedManager) {
    first.reset();
    second.reset();
  });
  Hear(first);
  Hear(second);
  dynamic_cast<ITaskClient&>(*third).OnManagerEnded(
      [](EndedManager) { throw std::runtime_error("not now"); });
  const auto fourth = manager_wrapper_->CreateIpcClient("worker");
  Hear(fourth);
  testing::internal::CaptureStdout();
  manager_wrapper_.reset();
  EXPECT_THAT(testing::internal::GetCapturedStdout(), HasSubstr("threw: not now"));
  EXPECT_THAT(heard_, testing::ElementsAre(EndedManager::kOwn));
}

TEST_F(Lifetimes, OfAnIntentManagerMayEndInsideItsCallback) {
  const ScopedVariable handler("RUNTIME_MANAGER_URI_HANDLER", "/bin/true");
  auto intents = manager_wrapper_->GetIntentManager();
  int outcomes = 0;
  intents->OpenUri("https://example.com/1", [this, &intents, &outcomes](bool success) {
    EXPECT_TRUE(success);
    ++outcomes;
    manager_wrapper_.reset();
    intents.reset();
  });
  intents->OpenUri("https://example.com/2", [&outcomes](bool /*success*/) { ++outcomes; });
  EXPECT_TRUE(WaitUntil([&outcomes] { return outcomes > 0; }));
  RunEvents(kAWhile);
  EXPECT_EQ(outcomes, 1) << "the second request went with the manager";
}

TEST_F(Lifetimes, OfAnIntentManagerEndBeforeItsManagerWithRequestsInFlight) {
  const ScopedVariable handler("RUNTIME_MANAGER_URI_HANDLER", "/bin/true");
  auto intents = manager_wrapper_->GetIntentManager();
  int outcomes = 0;
  for (const char* const uri : {"https://example.com/1", "https://example.com/2"}) {
    intents->OpenUri(uri, [&outcomes](bool success) { outcomes += success ? 1 : 0; });
  }
  intents.reset();
  EXPECT_TRUE(WaitUntil([&outcomes] { return outcomes == 2; }))
      << "the requests are the service's, which is still there";
}

TEST_F(Lifetimes, OfAnIntentManagerAndItsManagerEndWithRequestsInFlight) {
  const ScopedVariable handler("RUNTIME_MANAGER_URI_HANDLER", "/bin/true");
  auto intents = manager_wrapper_->GetIntentManager();
  const auto alive = std::make_shared<int>(0);
  for (const char* const uri : {"https://example.com/1", "https://example.com/2"}) {
    intents->OpenUri(uri, [alive](bool) { ADD_FAILURE() << "an outcome after the end"; });
  }
  intents.reset();
  EXPECT_EQ(alive.use_count(), 3);
  manager_wrapper_.reset();
  EXPECT_EQ(alive.use_count(), 1) << "what waits goes with the manager";
  RunEvents(kAWhile);
}

// ---- In the task

using TaskCase = std::tuple<const char*, const char*>;

class EndsInTask : public EndToEndTest, public testing::WithParamInterface<TaskCase> {
 protected:
  const ScopedVariable plan_{"LEAVER",
                             std::string(std::get<0>(GetParam())) + " " + std::get<1>(GetParam())};
};

std::string NameOfTaskCase(const testing::TestParamInfo<TaskCase>& info) {
  std::string name;
  bool upper = true;
  for (const char c : std::get<1>(info.param) + std::string(" at ") + std::get<0>(info.param)) {
    if (std::isalpha(c) != 0) {
      name += static_cast<char>(upper ? std::toupper(c) : c);
    }
    upper = std::isalpha(c) == 0;
  }
  return name;
}

INSTANTIATE_TEST_SUITE_P(EveryMoment, EndsInTask,
                         testing::Combine(testing::Values("before-run", "timer", "connected",
                                                          "notification", "request", "end"),
                                          testing::Values("server-first", "manager-first")),
                         NameOfTaskCase);

TEST_P(EndsInTask, LetTheTaskGoOnToAnOrderlyEnd) {
  const CaptureStderr output;
  auto connection = Start("leaver");
  connection->client->Run();
  if (std::string(std::get<0>(GetParam())) == "end") {
    EXPECT_TRUE(connection->WaitForConnected());
    connection.reset();
  } else {
    connection->client->SendNotify("leave", {});
    connection->Send("leave");
  }
  EXPECT_TRUE(WaitForSign("left"));
  EXPECT_TRUE(WaitUntil([] { return Children().empty(); }));
  std::string line;
  std::getline(std::ifstream(Sign("left")) >> std::ws, line);
  EXPECT_EQ(line, "left");
  EXPECT_THAT(output.GetText(), Not(HasSubstr("Sanitizer")));
  EXPECT_THAT(output.GetText(), Not(HasSubstr("runtime error")));
}

}  // namespace
}  // namespace tarv::test
