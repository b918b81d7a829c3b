// The layer where memory runs out: a program of its own, because it replaces operator new.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <tarv/calls/kept_task.h>

#include <limits>
#include <new>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "fixture.h"
#include "support/memory_usage.h"

namespace {

using counting::kNext;
using counting::kPing;
using counting::kSay;
using tarv::CallError;
using tarv::CallOptions;
using tarv::CallReason;
using tarv::Outcome;
using tarv::Request;
using tarv::TaskStatus;
using tarv::test::CallsTest;
using tarv::test::Ending;
using tarv::test::GetMemoryUsage;
using tarv::test::Link;
using tarv::test::TestLoop;
using testing::ElementsAre;
using testing::HasSubstr;
using State = TaskStatus::State;
using namespace std::chrono_literals;

constexpr char kLong[] = "a text that is too long to stand where the text itself stands";

template <class Act>
void WithoutMemory(const Act& act) {
  GetMemoryUsage().limit = 0;
  act();
  GetMemoryUsage().limit = std::numeric_limits<std::size_t>::max();
}

template <class Act>
void ExpectRefused(const Act& act) {
  bool is_refused = false;
  WithoutMemory([&] {
    try {
      act();
    } catch (const std::bad_alloc&) {
      is_refused = true;
    }
  });
  EXPECT_TRUE(is_refused);
}

TEST(CallErrorWithoutMemory, IsCopied) {
  const CallError error(CallReason::kAnswered, kLong, 7, kLong, cw::EncodableValue(kLong));
  std::optional<CallError> copy;
  WithoutMemory([&] { copy = error; });
  EXPECT_EQ(copy->GetReason(), CallReason::kAnswered);
  EXPECT_STREQ(copy->what(), kLong);
  EXPECT_EQ(copy->GetCode(), 7);
  EXPECT_EQ(copy->GetMessage(), kLong);
  EXPECT_EQ(copy->GetData(), cw::EncodableValue(kLong));
}

TEST(CallErrorWithoutMemory, HasThePreparedText) {
  const CallError prepared(CallReason::kOutOfMemory, kLong, 7, kLong, cw::EncodableValue(kLong));
  std::optional<CallError> error;
  WithoutMemory([&] { error.emplace(CallReason::kTaskKilled, -32002, prepared); });
  EXPECT_EQ(error->GetReason(), CallReason::kTaskKilled);
  EXPECT_STREQ(error->what(), kLong);
  EXPECT_EQ(error->GetCode(), -32002);
  EXPECT_EQ(error->GetMessage(), "");
  EXPECT_TRUE(error->GetData().IsNull());
}

// Keeps how calls end, in room that is there beforehand.
class CallsWithoutMemory : public CallsTest {
 protected:
  struct Heard {
    int number;
    std::optional<CallError> error;
  };

  CallsWithoutMemory() {
    heard_.reserve(10);
    KeepPings();
    service_->On(kSay, [](const std::string& /*text*/) {});
  }

  template <class CallType>
  void Hear(int number, const CallType& call) {
    call.Then([this, number](const auto& outcome) {
      heard_.push_back({number, outcome ? std::nullopt : std::optional(outcome.GetError())});
    });
  }
  std::vector<int> NumbersHeard() const {
    std::vector<int> numbers;
    for (const Heard& heard : heard_) {
      numbers.push_back(heard.number);
    }
    return numbers;
  }

  std::vector<Heard> heard_;
  std::unique_ptr<vorpc::IReply> reply_;
};

TEST_F(CallsWithoutMemory, EndInTheirOrderWithTheReasonAndCodeOfTheLoss) {
  Hear(1, caller_->Call(kPing, CallOptions().Timeout(3s)));
  Hear(2, caller_->Call(kPing, CallOptions().Timeout(1s)));
  Hear(3, caller_->Call(kPing, CallOptions().Timeout(2s)));
  link_.Pump();
  std::optional<vorpc::Message::Error> error(std::in_place, -32002, "killed");
  WithoutMemory([&] { link_.client->Disconnect(std::move(error)); });
  EXPECT_THAT(NumbersHeard(), ElementsAre(1, 2, 3));
  EXPECT_EQ(heard_[0].error->GetReason(), CallReason::kTaskKilled);
  EXPECT_EQ(heard_[0].error->GetCode(), -32002);
  EXPECT_EQ(heard_[0].error->GetMessage(), "");
  EXPECT_THAT(heard_[0].error->what(), HasSubstr("a call of the task 'words' has ended, and memory "
                                                 "ran out for words about it"));
}

TEST_F(CallsWithoutMemory, EndWithTheCaller) {
  Hear(1, caller_->Call(kPing));
  link_.Pump();
  Hear(2, caller_->Call(kPing));
  WithoutMemory([this] { caller_.reset(); });
  EXPECT_THAT(NumbersHeard(), ElementsAre(1, 2));
  EXPECT_EQ(heard_[1].error->GetReason(), CallReason::kReleased);
}

TEST_F(CallsWithoutMemory, DoNotBegin) {
  const tarv::Call<void> first = caller_->Call(kPing);
  link_.Pump();
  ExpectRefused([this] { caller_->Call(kPing); });
  link_.Pump();
  EXPECT_EQ(link_.CountSent("ping"), 1U);
}

// Beginning fails at each of its allocations in turn: what was sent by then is cancelled.
TEST_F(CallsWithoutMemory, ThatCouldNotBeginLeaveNothingOpen) {
  Hear(0, caller_->Call(kPing));
  link_.Pump();
  for (std::size_t limit = 16; limit < 400; limit += 8) {
    GetMemoryUsage().limit = limit;
    try {
      caller_->Call(kPing, CallOptions().Timeout(30s));
    } catch (const std::bad_alloc&) {
    }
    GetMemoryUsage().limit = std::numeric_limits<std::size_t>::max();
  }
  link_.Pump();
  link_.loop->Advance(1h);
  EXPECT_EQ(caller_->GetMetrics().methods.at("ping").in_flight, 0U);
  EXPECT_EQ(NumbersHeard().size(), 1U);
}

TEST_F(CallsWithoutMemory, GoOnWhenTheyCannotBeCancelled) {
  const tarv::Call<void> call = caller_->Call(kPing);
  Hear(1, call);
  link_.Pump();
  ExpectRefused([&call] { call.Cancel(); });
  link_.Pump();
  EXPECT_TRUE(heard_.empty());
  call.Cancel();
  link_.Pump();
  ASSERT_THAT(NumbersHeard(), ElementsAre(1));
  EXPECT_EQ(heard_[0].error->GetReason(), CallReason::kCancelled);
}

TEST_F(CallsWithoutMemory, MayBeGivenAConsumerAgain) {
  const tarv::Call<void> call = caller_->Call(kSay, "a");
  link_.Pump();
  ExpectRefused([&] { Hear(1, call); });
  Hear(2, call);
  link_.Pump();
  EXPECT_THAT(NumbersHeard(), ElementsAre(2));
}

// The consumer is made by then, and there is no memory to have it called.
TEST_F(CallsWithoutMemory, MayBeGivenAConsumerAgainWhenTheyHaveEnded) {
  const tarv::Call<void> call = caller_->Call(kSay, "a");
  link_.Pump();
  tarv::details::CallState::Consumer consumer = [this](tarv::details::CallState& /*state*/) {
    heard_.push_back({1, std::nullopt});
  };
  ExpectRefused([&] { call.AsOutcome().state->Consume(std::move(consumer)); });
  Hear(2, call);
  link_.Pump();
  EXPECT_THAT(NumbersHeard(), ElementsAre(2));
}

// As a structure does whose memory runs out while it is read.
struct Hungry {
  std::string text;
};
TARV_VALUE(Hungry, text)

TEST_F(CallsWithoutMemory, EndOfThatWhenTheirResultFindsNone) {
  constexpr tarv::Method<Hungry()> kHungry{"hungry"};
  std::optional<CallReason> reason;
  const auto hear = [&reason](const Outcome<Hungry>& outcome) {
    reason = outcome ? std::nullopt : std::optional(outcome.GetError().GetReason());
  };
  link_.server->OnRequest(
      "hungry", [this](const std::string&, const cw::EncodableValue&,
                       std::unique_ptr<vorpc::IReply>&& reply) { reply_ = std::move(reply); });
  caller_->Call(kHungry).Then(hear);
  link_.Pump();
  const std::string id = reply_->GetRequestId().value;
  vorpc::Message response =
      vorpc::Message::CreateResponse(vorpc::Message::ID(id), cw::EncodableMap{{"text", kLong}});
  WithoutMemory([&] { link_.client->Receive(std::move(response)); });
  EXPECT_EQ(reason, CallReason::kOutOfMemory);
}

TEST_F(CallsWithoutMemory, EndOfThatWhenTheirTimeCannotBeKept) {
  Hear(1, caller_->Call(kPing, CallOptions().Timeout(1s)));
  Hear(2, caller_->Call(kPing, CallOptions().Timeout(2s)));
  link_.Pump();
  WithoutMemory([this] { link_.loop->Advance(1s); });
  EXPECT_THAT(NumbersHeard(), ElementsAre(1, 2));
  EXPECT_EQ(heard_[0].error->GetReason(), CallReason::kTimedOut);
  EXPECT_EQ(heard_[1].error->GetReason(), CallReason::kOutOfMemory);
}

TEST_F(CallsWithoutMemory, KeepTheEarlierHandlerOfAMethod) {
  ExpectRefused([this] { service_->On(kSay, [](const std::string&) { throw 1; }); });
  Hear(1, caller_->Call(kSay, "a"));
  link_.Pump();
  ASSERT_THAT(NumbersHeard(), ElementsAre(1));
  EXPECT_FALSE(heard_[0].error);
}

TEST_F(CallsWithoutMemory, LeaveARequestOpenThatCouldNotBeAnswered) {
  Hear(1, caller_->Call(kPing));
  link_.Pump();
  ExpectRefused([this] { open_.front().Answer(); });
  ExpectRefused([this] { open_.front().Fail(7, "no"); });
  link_.Pump();
  EXPECT_TRUE(heard_.empty());
  open_.front().Answer();
  link_.Pump();
  ASSERT_THAT(NumbersHeard(), ElementsAre(1));
  EXPECT_FALSE(heard_[0].error);
}

TEST_F(CallsWithoutMemory, AnswerADroppedRequestWithTheNextOne) {
  Hear(1, caller_->Call(kPing));
  Hear(2, caller_->Call(kPing));
  link_.Pump();
  WithoutMemory([this] { open_.clear(); });
  link_.Pump();
  EXPECT_TRUE(heard_.empty());
  Hear(3, caller_->Call(kSay, "a"));
  link_.Pump();
  ASSERT_EQ(heard_.size(), 3U);
  EXPECT_THAT(heard_[0].error->what(), HasSubstr("-32603: Memory ran out for the answer."));
  EXPECT_EQ(service_->GetMetrics().methods.at("ping").in_flight, 0U);
}

TEST_F(CallsWithoutMemory, AnswerADroppedRequestWhenAnotherOneIsCancelled) {
  Hear(1, caller_->Call(kPing));
  const tarv::Call<void> other = caller_->Call(kPing);
  link_.Pump();
  WithoutMemory([this] { open_.erase(open_.begin()); });
  link_.Pump();
  EXPECT_TRUE(heard_.empty());
  other.Cancel();
  link_.Pump();
  ASSERT_EQ(heard_.size(), 1U);
  EXPECT_EQ(heard_[0].error->GetCode(), -32603);
}

// Ends its user in the middle of a send.
class FatalClient final : public vorpc::IClient {
 public:
  using Callback = std::function<void(const std::optional<vorpc::Message::Error>&)>;

  bool IsConnected() const override { return true; }
  bool HasConnectionFailed() const override { return false; }
  void Run() override { connected_(std::nullopt); }
  void OnConnected(Callback&& callback) override { connected_ = std::move(callback); }
  void OnDisconnected(Callback&& /*callback*/) override {}
  void SendRequest(std::string_view method, const cw::EncodableValue& /*params*/,
                   std::function<void(const vorpc::Message::Response&)>&& /*callback*/) override {
    if (method == kSay.name) {
      end_user();
    }
  }
  void SendNotify(std::string_view /*method*/, const cw::EncodableValue& /*params*/) override {}
  void OnNotify(std::string_view /*method*/,
                std::function<void(const vorpc::Message::Notification&)>&& /*callback*/) override {}

  std::function<void()> end_user;

 private:
  Callback connected_;
};

TEST_F(CallsWithoutMemory, EndWithACallerThatEndsInTheMiddleOfASend) {
  const auto client = std::make_shared<FatalClient>();
  auto caller = std::make_unique<tarv::Caller>(client, link_.loop);
  link_.Pump();
  Hear(1, caller->Call(kPing));
  client->end_user = [&caller] { WithoutMemory([&caller] { caller.reset(); }); };
  const tarv::Call<void> last = caller->Call(kSay, "a");
  Hear(2, last);
  link_.Pump();
  EXPECT_THAT(NumbersHeard(), ElementsAre(1, 2));
  EXPECT_EQ(heard_[0].error->GetReason(), CallReason::kReleased);
  EXPECT_EQ(heard_[1].error->GetReason(), CallReason::kReleased);
}

TEST(ServiceAndItsServer, LeaveNothingWhenTheyEnd) {
  const auto loop = std::make_shared<TestLoop>();
  const auto make = [&loop] {
    const Link link(loop);
    tarv::Service::For(link.server, loop)->On(kPing, [] {});
  };
  make();
  const std::size_t before = GetMemoryUsage().held;
  for (int i = 0; i < 10; ++i) {
    make();
  }
  EXPECT_EQ(GetMemoryUsage().held, before);
}

// A task that is killed while there is no memory.
TEST(KeptTaskWithoutMemory, TellsTheLatestChangeAndStartsAgain) {
  const auto loop = std::make_shared<TestLoop>();
  std::vector<std::unique_ptr<Link>> links;
  std::vector<TaskStatus> statuses;
  statuses.reserve(10);
  tarv::KeptTask task(
      [&]() -> std::shared_ptr<vorpc::IClient> {
        links.push_back(std::make_unique<Link>(loop));
        links.back()->server->OnRequest(
            "next", [](const std::string&, const cw::EncodableValue&,
                       std::unique_ptr<vorpc::IReply>&& reply) { reply->SendResult(1); });
        links.back()->server->Run();
        return std::move(links.back()->client);
      },
      "words", {}, loop);
  task.OnChange([&statuses](const TaskStatus& status) { statuses.push_back(status); });
  const Ending<std::int32_t> first(task.Call(kNext));
  loop->Pump();
  ASSERT_TRUE(first.Get());
  statuses.clear();
  const auto client = links.back()->weak_client.lock();
  std::optional<vorpc::Message::Error> error(std::in_place, -32002, "killed");
  WithoutMemory([&] { client->Disconnect(std::move(error)); });
  ASSERT_EQ(statuses.size(), 1U);
  EXPECT_EQ(statuses[0].state, State::kEnded);
  EXPECT_EQ(statuses[0].why->GetReason(), CallReason::kTaskKilled);
  const Ending<std::int32_t> second(task.Call(kNext));
  loop->Advance(200ms);
  EXPECT_TRUE(second.Get());
  EXPECT_EQ(links.size(), 2U);
}

}  // namespace
