#include "receiver.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <future>
#include <memory>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "support/capture.h"
#include "support/log_line.h"

namespace vorpc::details {
namespace {

using tarv::test::IsLogLine;
using tarv::test::StdoutOf;
using testing::ElementsAre;
using ID = Message::ID;

Message Notice(std::string_view method) { return Message::CreateNotification(method, {}); }

// A receiver that writes down what comes out of it: "send x" and "receive x" for a notification x.
class ReceiverTest : public testing::Test {
 protected:
  static std::string NameOf(const Message& message) {
    return message.GetNotification() != nullptr ? message.GetNotification()->method : "other";
  }

  std::vector<std::string> log_;
  Receiver receiver_{[this](Message&& message) { log_.push_back("send " + NameOf(message)); },
                     [this](const Message& message) {
                       log_.push_back("receive " + NameOf(message));
                       return true;
                     }};
};

TEST_F(ReceiverTest, HoldsBothDirectionsBackAndReleasesThemInTheirOrder) {
  receiver_.Send(Notice("1"));
  receiver_.Receive(Notice("2"));
  receiver_.Receive(Notice("3"));
  receiver_.Send(Notice("4"));
  receiver_.ProcessQueue();
  EXPECT_TRUE(log_.empty());
  receiver_.SetQueueEnabled();
  EXPECT_THAT(log_, ElementsAre("send 1", "receive 2", "receive 3", "send 4"));
}

TEST_F(ReceiverTest, DeliversAtOnceWhenTheQueueFlows) {
  receiver_.SetQueueEnabled();
  receiver_.Send(Notice("1"));
  EXPECT_THAT(log_, ElementsAre("send 1"));
  receiver_.Receive(Notice("2"));
  EXPECT_THAT(log_, ElementsAre("send 1", "receive 2"));
}

TEST_F(ReceiverTest, TakesEnablingAnEmptyQueueAndEnablingTwice) {
  receiver_.SetQueueEnabled();
  receiver_.SetQueueEnabled();
  EXPECT_TRUE(log_.empty());
  receiver_.Send(Notice("1"));
  EXPECT_THAT(log_, ElementsAre("send 1"));
}

TEST_F(ReceiverTest, LetsImmediateMessagesPassTheQueue) {
  receiver_.Send(Notice("1"));
  receiver_.SendImmediately(Notice("2"));
  receiver_.ReceiveImmediately(Notice("3"));
  EXPECT_THAT(log_, ElementsAre("send 2", "receive 3"));
}

TEST_F(ReceiverTest, IsSilentOnceClosed) {
  receiver_.Send(Notice("1"));
  receiver_.Close();
  EXPECT_TRUE(receiver_.IsClosed());
  receiver_.SetQueueEnabled();
  receiver_.SendImmediately(Notice("2"));
  receiver_.ReceiveImmediately(Notice("3"));
  receiver_.Receive(Notice("4"));
  EXPECT_TRUE(log_.empty());
}

// A value that shares the witness.
cw::EncodableValue Holding(const std::shared_ptr<int>& witness) {
  return cw::CustomEncodableValue(witness);
}

// Not that of a handler, nor of a message that waits; and not what is handed in from then on.
TEST(Receiver, KeepsNothingOnceClosed) {
  const auto witness = std::make_shared<int>();
  Receiver receiver({}, {});
  receiver.OnNotify("tick", [witness](const Message::Notification&) {});
  receiver.Send(Message::CreateNotification("queued", Holding(witness)));
  receiver.Receive(Message::CreateNotification("queued", Holding(witness)));
  EXPECT_EQ(witness.use_count(), 4);
  receiver.Close();
  EXPECT_EQ(witness.use_count(), 1);
  receiver.OnNotify("tick", [witness](const Message::Notification&) {});
  receiver.Send(Message::CreateNotification("late", Holding(witness)));
  EXPECT_EQ(witness.use_count(), 1);
}

// A handler that dies calls back in, which finds every lock free.
TEST(Receiver, LetsAHandlerDieOutsideItsLocksOnceClosed) {
  struct RegistersOnDeath {
    Receiver& receiver;
    ~RegistersOnDeath() {
      receiver.OnNotify("tock", [](const Message::Notification&) {});
    }
  };
  Receiver receiver({}, {});
  const auto give = [&receiver] {
    return std::make_shared<RegistersOnDeath>(RegistersOnDeath{receiver});
  };
  receiver.OnNotify("tick", [held = give()](const Message::Notification&) {});
  receiver.Close();
  receiver.OnNotify("tick", [held = give()](const Message::Notification&) {});
  EXPECT_TRUE(receiver.IsClosed());
}

TEST(Receiver, IsClosedFromInsideADeliveryAndDropsTheRest) {
  const auto witness = std::make_shared<int>();
  int deliveries = 0;
  Receiver* self = nullptr;
  Receiver receiver({}, [&](const Message&) {
    ++deliveries;
    self->Close();
    return true;
  });
  self = &receiver;
  receiver.Receive(Message::CreateNotification("1", Holding(witness)));
  receiver.Receive(Message::CreateNotification("2", Holding(witness)));
  receiver.SetQueueEnabled();
  EXPECT_EQ(deliveries, 1);
  EXPECT_EQ(witness.use_count(), 1);
}

TEST(Receiver, IsClosedByAThreadThatDoesNotWaitForADelivery) {
  Receiver* self = nullptr;
  std::vector<std::string> log;
  Receiver receiver({}, [&](const Message& message) {
    log.push_back(message.GetNotification()->method);
    std::thread([&self] { self->Close(); }).join();
    return true;
  });
  self = &receiver;
  receiver.Receive(Notice("1"));
  receiver.Receive(Notice("2"));
  receiver.SetQueueEnabled();
  EXPECT_THAT(log, ElementsAre("1"));
}

TEST(Receiver, NumbersItsDirections) {
  EXPECT_EQ(static_cast<int>(Receiver::Kind::Receive), 0);
  EXPECT_EQ(static_cast<int>(Receiver::Kind::Send), 1);
}

TEST(Receiver, DeliversWhatAHandlerSendsBeforeTheRestOfTheBatch) {
  std::vector<std::string> log;
  Receiver* self = nullptr;
  Receiver receiver(
      [&log](Message&& message) { log.push_back("send " + message.GetNotification()->method); },
      [&log, &self](const Message& message) {
        log.push_back("receive " + message.GetNotification()->method);
        if (message.GetNotification()->method == "1") {
          self->Send(Notice("inner"));
        }
        return true;
      });
  self = &receiver;
  receiver.Receive(Notice("1"));
  receiver.Receive(Notice("2"));
  receiver.SetQueueEnabled();
  EXPECT_THAT(log, ElementsAre("receive 1", "send inner", "receive 2"));
}

TEST(Receiver, MakesOtherThreadsWaitUntilABatchIsDone) {
  std::vector<std::string> log;
  std::thread other;
  std::promise<void> started;
  Receiver* self = nullptr;
  Receiver receiver({}, [&](const Message& message) {
    const std::string& method = message.GetNotification()->method;
    log.push_back(method);
    if (method == "1") {
      other = std::thread([&started, &self] {
        started.set_value();
        self->Receive(Notice("other"));
      });
      started.get_future().wait();
      std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    return true;
  });
  self = &receiver;
  receiver.Receive(Notice("1"));
  receiver.Receive(Notice("2"));
  receiver.SetQueueEnabled();
  other.join();
  EXPECT_THAT(log, ElementsAre("1", "2", "other"));
}

TEST(Receiver, LetsImmediateMessagesOfAnotherThreadPassADelivery) {
  std::vector<std::string> log;
  Receiver* self = nullptr;
  Receiver receiver([&log](Message&& message) { log.push_back(message.GetNotification()->method); },
                    [&](const Message& message) {
                      const std::string method = message.GetNotification()->method;
                      if (method == "1") {
                        std::thread([&self] {
                          self->SendImmediately(Notice("out"));
                          self->ReceiveImmediately(Notice("in"));
                        }).join();
                      }
                      log.push_back(method);
                      return true;
                    });
  self = &receiver;
  receiver.SetQueueEnabled();
  receiver.Receive(Notice("1"));
  EXPECT_THAT(log, ElementsAre("out", "in", "1"));
}

TEST(Receiver, DropsWhatIsSentWithoutASendFunction) {
  Receiver receiver({}, {});
  receiver.SetQueueEnabled();
  EXPECT_EQ(StdoutOf([&receiver] {
              receiver.Send(Notice("1"));
              receiver.SendImmediately(Notice("2"));
            }),
            "");
}

TEST(Receiver, GivesANotificationToEveryHandlerInTheOrderOfRegistration) {
  std::vector<std::string> log;
  Receiver receiver({}, {});
  for (const char* const name : {"first", "second"}) {
    receiver.OnNotify("tick", [&log, name](const Message::Notification& notification) {
      log.push_back(name + std::string(" ") + *notification.params.AsString());
    });
  }
  receiver.OnNotify("tock", [&log](const Message::Notification&) { log.emplace_back("tock"); });
  receiver.SetQueueEnabled();
  receiver.Receive(Message::CreateNotification("tick", "x"));
  EXPECT_THAT(log, ElementsAre("first x", "second x"));
}

TEST(Receiver, GivesEveryHandlerItsOwnCopyOfTheNotification) {
  std::vector<std::string> seen;
  Receiver receiver({}, {});
  for (int i = 0; i < 2; ++i) {
    receiver.OnNotify("tick", [&seen](const Message::Notification& notification) {
      seen.push_back(*notification.params.AsString());
      const_cast<Message::Notification&>(notification).params = "spoiled";
    });
  }
  const Message message = Message::CreateNotification("tick", "fresh");
  receiver.ReceiveImmediately(message);
  EXPECT_THAT(seen, ElementsAre("fresh", "fresh"));
  EXPECT_EQ(message, Message::CreateNotification("tick", "fresh"));
}

TEST(Receiver, DoesNotGiveHandlersWhatTheFilterTook) {
  int calls = 0;
  bool take = true;
  Receiver receiver({}, [&take](const Message&) { return take; });
  receiver.OnNotify("tick", [&calls](const Message::Notification&) { ++calls; });
  receiver.ReceiveImmediately(Notice("tick"));
  EXPECT_EQ(calls, 0);
  take = false;
  receiver.ReceiveImmediately(Notice("tick"));
  EXPECT_EQ(calls, 1);
}

TEST(Receiver, LogsANotificationThatNobodyHandles) {
  Receiver receiver({}, {});
  EXPECT_THAT(StdoutOf([&receiver] { receiver.ReceiveImmediately(Notice("ping")); }),
              IsLogLine("error", "Unknown event 'ping()'"));
}

TEST(Receiver, LogsNoControlCharacterOfItsPeer) {
  Receiver receiver({}, {});
  EXPECT_THAT(StdoutOf([&receiver] { receiver.ReceiveImmediately(Notice("a\nb\x1b")); }),
              IsLogLine("error", "Unknown event 'a\\nb\\x1b()'"));
}

TEST(Receiver, LogsWhateverElseNobodyTakes) {
  Receiver receiver({}, [](const Message&) { return false; });
  for (const Message& message :
       {Message::CreateResponse(ID(1), 2), Message::CreateRequest(ID(1), "m", {}),
        Message::CreateError(1, "e"), Message()}) {
    EXPECT_THAT(StdoutOf([&] { receiver.ReceiveImmediately(message); }),
                IsLogLine("warn", "[RPC Receiver]: unhandled message"));
  }
}

// Each in a line of its own behind the first, and nothing for what is no message.
TEST(Receiver, NamesThePeerWhoseMessageNobodyTakesAndTheMessage) {
  const auto behind = [](const Message& message) {
    Receiver receiver({}, {});
    receiver.SetPeerName("the task 'x'");
    const std::string lines = StdoutOf([&] { receiver.ReceiveImmediately(message); });
    return lines.substr(lines.find('\n') + 1);
  };
  EXPECT_THAT(
      behind(Message::CreateResponse(ID("id7"), 2)),
      IsLogLine("warn",
                "[RPC Receiver]: nobody here waits for the response to id7 from the task 'x'"));
  EXPECT_THAT(behind(Message::CreateRequest(ID("id8"), "add\n", {})),
              IsLogLine("warn",
                        "[RPC Receiver]: nobody here waits for the request id8 'add\\n' from the "
                        "task 'x'"));
  EXPECT_THAT(behind(Notice("ping")),
              IsLogLine("warn",
                        "[RPC Receiver]: nobody here waits for the notification 'ping' from the "
                        "task 'x'"));
  EXPECT_EQ(behind(Message::CreateError(1, "e")), "");
  EXPECT_EQ(behind(Message()), "");
}

TEST(Receiver, LogsAResponseWhenThereIsNoFilter) {
  Receiver receiver({}, {});
  EXPECT_THAT(
      StdoutOf([&receiver] { receiver.ReceiveImmediately(Message::CreateResponse(ID(1), 2)); }),
      IsLogLine("warn", "[RPC Receiver]: unhandled message"));
}

TEST(Receiver, LetsAHandlerRegisterAnotherOneThatHearsTheNextNotification) {
  int late_calls = 0;
  Receiver receiver({}, {});
  bool registered = false;
  receiver.OnNotify("tick", [&](const Message::Notification&) {
    if (!std::exchange(registered, true)) {
      receiver.OnNotify("tick", [&late_calls](const Message::Notification&) { ++late_calls; });
    }
  });
  receiver.ReceiveImmediately(Notice("tick"));
  EXPECT_EQ(late_calls, 0);
  receiver.ReceiveImmediately(Notice("tick"));
  EXPECT_EQ(late_calls, 1);
}

TEST(Receiver, SkipsAnEmptyHandler) {
  Receiver receiver({}, {});
  receiver.OnNotify("tick", {});
  EXPECT_EQ(StdoutOf([&receiver] { receiver.ReceiveImmediately(Notice("tick")); }), "");
}

TEST(Receiver, KeepsTheStateOfAHandlerAcrossNotifications) {
  std::vector<int> counts;
  Receiver receiver({}, {});
  receiver.OnNotify("tick", [&counts, count = 0](const Message::Notification&) mutable {
    counts.push_back(++count);
  });
  receiver.ReceiveImmediately(Notice("tick"));
  receiver.ReceiveImmediately(Notice("tick"));
  EXPECT_THAT(counts, ElementsAre(1, 2));
}

TEST(Receiver, StaysUsableWhenTheFilterThrowsAndLosesTheRestOfTheBatch) {
  std::vector<std::string> log;
  Receiver receiver({}, [&log](const Message& message) {
    const std::string& method = message.GetNotification()->method;
    log.push_back(method);
    if (method == "bad") {
      throw std::runtime_error("bad");
    }
    return true;
  });
  receiver.Receive(Notice("bad"));
  receiver.Receive(Notice("lost"));
  EXPECT_THROW(receiver.SetQueueEnabled(), std::runtime_error);
  // Another thread finds the lock free.
  std::thread([&receiver] { receiver.Receive(Notice("next")); }).join();
  EXPECT_THAT(log, ElementsAre("bad", "next"));
}

TEST(Receiver, PassesOnWhatANotificationHandlerThrows) {
  std::vector<std::string> log;
  Receiver receiver({}, {});
  receiver.OnNotify("bad", [&log](const Message::Notification&) {
    log.emplace_back("bad");
    throw std::runtime_error("bad");
  });
  receiver.OnNotify("bad", [&log](const Message::Notification&) { log.emplace_back("after bad"); });
  receiver.OnNotify("good", [&log](const Message::Notification&) { log.emplace_back("good"); });
  receiver.Receive(Notice("bad"));
  receiver.Receive(Notice("good"));  // lost
  EXPECT_THROW(receiver.SetQueueEnabled(), std::runtime_error);
  EXPECT_THROW(receiver.ReceiveImmediately(Notice("bad")), std::runtime_error);
  // Another thread finds the locks free.
  std::thread([&receiver] { receiver.Receive(Notice("good")); }).join();
  EXPECT_THAT(log, ElementsAre("bad", "bad", "good"));
}

TEST(Receiver, PassesOnWhatTheSendFunctionThrows) {
  Receiver receiver([](Message&&) { throw std::runtime_error("no transport"); }, {});
  receiver.SetQueueEnabled();
  EXPECT_THROW(receiver.Send(Notice("1")), std::runtime_error);
  EXPECT_THROW(receiver.SendImmediately(Notice("1")), std::runtime_error);
  EXPECT_THROW(
      [&receiver] {
        SendGuard guard(receiver);
        guard.Send(Notice("1"));
      }(),
      std::runtime_error);
}

TEST(Receiver, DeliversEveryMessageOfSeveralThreadsOnce) {
  constexpr int kThreads = 4;
  constexpr int kMessages = 500;
  std::atomic<bool> inside = false;
  std::vector<int> next(kThreads);
  Receiver receiver({}, [&inside, &next](const Message& message) {
    EXPECT_FALSE(inside.exchange(true));
    const auto& params = *message.GetNotification()->params.AsList();
    EXPECT_EQ(next[static_cast<std::size_t>(*params[0].AsInt64())]++, *params[1].AsInt64());
    inside = false;
    return true;
  });
  std::vector<std::thread> threads;
  for (int thread = 0; thread < kThreads; ++thread) {
    threads.emplace_back([&receiver, thread] {
      for (int i = 0; i < kMessages; ++i) {
        receiver.Receive(Message::CreateNotification("n", cw::EncodableList{thread, i}));
      }
    });
  }
  receiver.SetQueueEnabled();
  for (std::thread& thread : threads) {
    thread.join();
  }
  EXPECT_THAT(next, testing::Each(kMessages));
}

// --- Guards ---

TEST_F(ReceiverTest, GuardsDeliverWhenTheyDie) {
  receiver_.SetQueueEnabled();
  {
    SendGuard send(receiver_);
    ReceiveGuard receive(receiver_);
    send.Send(Notice("1"));
    receive.Receive(Notice("2"));
    EXPECT_TRUE(log_.empty());
  }
  EXPECT_THAT(log_, ElementsAre("receive 2", "send 1"));
}

TEST_F(ReceiverTest, GuardsKeepTheQueueOrPassItAsAsked) {
  {
    SendGuard(receiver_).Send(Notice("1"));
    SendGuard(receiver_).SendImmediately(Notice("2"));
    ReceiveGuard(receiver_).Receive(Notice("3"));
    ReceiveGuard(receiver_).ReceiveImmediately(Notice("4"));
  }
  EXPECT_THAT(log_, ElementsAre("send 2", "receive 4"));
  receiver_.SetQueueEnabled();
  EXPECT_THAT(log_, ElementsAre("send 2", "receive 4", "send 1", "receive 3"));
}

TEST_F(ReceiverTest, AGuardThatIsGivenTwoMessagesDeliversTheFirstAndLogs) {
  receiver_.SetQueueEnabled();
  const std::string expected = "The data is already filled.";
  EXPECT_THAT(StdoutOf([this] {
                SendGuard guard(receiver_);
                guard.Send(Notice("1"));
                guard.SendImmediately(Notice("2"));
              }),
              IsLogLine("error", expected));
  EXPECT_THAT(StdoutOf([this] {
                ReceiveGuard guard(receiver_);
                guard.ReceiveImmediately(Notice("3"));
                guard.Receive(Notice("4"));
              }),
              IsLogLine("error", expected));
  EXPECT_THAT(log_, ElementsAre("send 1", "receive 3"));
}

TEST_F(ReceiverTest, AGuardWithoutAMessageDeliversNothing) {
  receiver_.SetQueueEnabled();
  {
    const SendGuard send(receiver_);
    const ReceiveGuard receive(receiver_);
  }
  EXPECT_TRUE(log_.empty());
}

TEST_F(ReceiverTest, AGuardThatAnExceptionEndsDeliversNothing) {
  receiver_.SetQueueEnabled();
  EXPECT_THROW(
      [this] {
        SendGuard send(receiver_);
        ReceiveGuard receive(receiver_);
        send.Send(Notice("1"));
        receive.Receive(Notice("2"));
        throw std::runtime_error("on the way");
      }(),
      std::runtime_error);
  EXPECT_TRUE(log_.empty());
}

}  // namespace
}  // namespace vorpc::details
