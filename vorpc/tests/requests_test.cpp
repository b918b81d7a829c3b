#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <vorpc/client.h>
#include <vorpc/requests.h>

#include <atomic>
#include <memory>
#include <string>
#include <thread>
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
using ID = Message::ID;

constexpr int kMostForgotten = 1024;  // as the header says

// A connected client on a recorder.
class Requests : public testing::Test {
 protected:
  Requests() {
    client_->Run();
    client_->SetStarted();
  }

  void Connect() { Answer(recorder_.GetLast().GetRequest()->id); }
  void Answer(const ID& id) { client_->Receive(Message::CreateResponse(id, "answer")); }

  ID Start(const std::string& method) {
    return requests_->StartRequest(method, {}, [this, method](const Message::Response& response) {
      diary_.push_back(method + (response.HasResult() ? " answered" : " failed"));
    });
  }

  // What the client logs when this response comes.
  std::string LineOfAnswer(const ID& id) {
    return StdoutOf([&] { Answer(id); });
  }

  Recorder recorder_;
  std::vector<std::string> diary_;
  std::shared_ptr<IOwnedClient> client_ = IOwnedClient::Create(recorder_.Send());
  IRequests* requests_ = dynamic_cast<IRequests*>(std::shared_ptr<IClient>(client_).get());
};

TEST_F(Requests, StartedGiveTheIdThatTravels) {
  Connect();
  const ID id = Start("a");
  ASSERT_NE(recorder_.GetLast().GetRequest(), nullptr);
  EXPECT_EQ(recorder_.GetLast().GetRequest()->id, id);
  EXPECT_EQ(recorder_.GetLast().GetRequest()->method, "a");
  Answer(id);
  EXPECT_THAT(diary_, ElementsAre("a answered"));
}

TEST_F(Requests, StartedBeforeTheConnectionStandsHaveTheirIdAlready) {
  const ID id = Start("a");
  EXPECT_EQ(recorder_.CountSent(), 1U);
  Connect();
  EXPECT_EQ(recorder_.GetLast().GetRequest()->id, id);
}

TEST_F(Requests, StartedAfterTheEndAreAnsweredBeforeTheIdIsThere) {
  Connect();
  client_->Disconnect({});
  EXPECT_FALSE(requests_->ForgetRequest(Start("a")));
  EXPECT_THAT(diary_, ElementsAre("a failed"));
}

TEST_F(Requests, ForgottenDropTheirCallbackUncalledAtOnce) {
  Connect();
  const auto witness = std::make_shared<int>();
  const ID id = requests_->StartRequest("a", {}, [witness](const auto&) { ADD_FAILURE(); });
  EXPECT_EQ(witness.use_count(), 2);
  EXPECT_TRUE(requests_->ForgetRequest(id));
  EXPECT_EQ(witness.use_count(), 1);
}

TEST_F(Requests, ForgottenDropTheirLateAnswerWithoutALine) {
  Connect();
  const ID id = Start("a");
  requests_->ForgetRequest(id);
  EXPECT_EQ(LineOfAnswer(id), "");
  EXPECT_THAT(diary_, IsEmpty());
}

TEST_F(Requests, ForgottenExpectOneLateAnswerOnly) {
  Connect();
  const ID id = Start("a");
  requests_->ForgetRequest(id);
  Answer(id);
  EXPECT_THAT(LineOfAnswer(id), IsLogLine("warn", "[RPC Receiver]: unhandled message"));
}

TEST_F(Requests, ForgottenLongAgoLeaveTheLineOfAnUnexpectedAnswer) {
  Connect();
  std::vector<ID> ids;
  for (int i = 0; i <= kMostForgotten; ++i) {
    ids.push_back(Start("a"));
    requests_->ForgetRequest(ids.back());
  }
  EXPECT_EQ(LineOfAnswer(ids.at(1)), "");
  EXPECT_EQ(LineOfAnswer(ids.back()), "");
  EXPECT_THAT(LineOfAnswer(ids.front()), IsLogLine("warn", "[RPC Receiver]: unhandled message"));
}

TEST_F(Requests, ForgottenAreNotAnsweredByTheEnd) {
  Connect();
  const ID id = Start("a");
  Start("b");
  requests_->ForgetRequest(id);
  client_->Disconnect({});
  EXPECT_THAT(diary_, ElementsAre("b failed"));
}

TEST_F(Requests, ForgottenWhileHeldBackGoOutAllTheSame) {
  const ID id = Start("a");
  EXPECT_TRUE(requests_->ForgetRequest(id));
  Connect();
  EXPECT_EQ(recorder_.GetLast().GetRequest()->id, id);
  EXPECT_EQ(LineOfAnswer(id), "");
  EXPECT_THAT(diary_, IsEmpty());
}

TEST_F(Requests, AreForgottenOnce) {
  Connect();
  const ID id = Start("a");
  EXPECT_TRUE(requests_->ForgetRequest(id));
  EXPECT_FALSE(requests_->ForgetRequest(id));
}

TEST_F(Requests, ThatWereAnsweredOrNeverMadeCannotBeForgotten) {
  Connect();
  const ID id = Start("a");
  Answer(id);
  EXPECT_FALSE(requests_->ForgetRequest(id));
  EXPECT_FALSE(requests_->ForgetRequest(ID("stranger")));
  EXPECT_THAT(LineOfAnswer(ID("stranger")), IsLogLine("warn", "[RPC Receiver]: unhandled message"));
}

TEST_F(Requests, CannotBeForgottenFromInsideTheirOwnCallback) {
  Connect();
  ID id("");
  id = requests_->StartRequest("a", {}, [&](const auto&) {
    EXPECT_FALSE(requests_->ForgetRequest(id));
    diary_.emplace_back("called");
  });
  Answer(id);
  EXPECT_THAT(diary_, ElementsAre("called"));
}

TEST_F(Requests, AreForgottenFromInsideTheCallbackOfAnother) {
  Connect();
  const ID later = Start("later");
  const ID first = requests_->StartRequest(
      "first", {}, [&](const auto&) { EXPECT_TRUE(requests_->ForgetRequest(later)); });
  Answer(first);
  EXPECT_EQ(LineOfAnswer(later), "");
  EXPECT_THAT(diary_, IsEmpty());
}

// What dies with the callback calls the client, which finds its lock free.
TEST_F(Requests, LetTheirCallbackDieOutsideTheLock) {
  struct CallsOnDeath {
    IOwnedClient& client;
    ~CallsOnDeath() { client.SendRequest("from the end", {}, {}); }
  };
  Connect();
  std::shared_ptr<CallsOnDeath> caller(new CallsOnDeath{*client_});
  const std::size_t before = recorder_.CountSent();
  const ID id =
      requests_->StartRequest("a", {}, [held = std::move(caller)](const auto&) { (void)held; });
  EXPECT_TRUE(requests_->ForgetRequest(id));
  EXPECT_EQ(recorder_.GetLast().GetRequest()->method, "from the end");
  EXPECT_EQ(recorder_.CountSent(), before + 2);
}

TEST_F(Requests, LetTheClientGoWithTheCallbackThatIsForgotten) {
  Connect();
  const ID id = requests_->StartRequest("a", {}, [client = client_](const auto&) {});
  client_.reset();
  EXPECT_TRUE(requests_->ForgetRequest(id));
}

TEST_F(Requests, AreEitherAnsweredOrForgottenWhenBothComeAtOnce) {
  constexpr int kRounds = 2000;
  Connect();
  std::atomic<int> answered{0};
  std::vector<ID> ids;
  for (int i = 0; i < kRounds; ++i) {
    ids.push_back(requests_->StartRequest("a", {}, [&answered](const auto&) { ++answered; }));
  }
  std::thread answering([&] {
    for (const ID& id : ids) {
      Answer(id);
    }
  });
  int forgotten = 0;
  for (auto id = ids.rbegin(); id != ids.rend(); ++id) {
    forgotten += requests_->ForgetRequest(*id) ? 1 : 0;
  }
  answering.join();
  EXPECT_EQ(answered + forgotten, kRounds);
}

}  // namespace
}  // namespace vorpc::test_support
