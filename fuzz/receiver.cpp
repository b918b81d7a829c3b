// A script of operations on the message pump, handlers' own among them: what was handed in comes
// out once, in order, and nothing comes out of the queue before it may flow.
#include "receiver.h"

#include <vorpc/message.h>

#include <cstdint>
#include <deque>

#include "support/require.h"
#include "support/script.h"

namespace {

using tarv::fuzz::Require;
using tarv::fuzz::Script;
using vorpc::Message;

constexpr int kMostNesting = 8;

// Each message carries its number, so that it is known again.
class Pump {
 public:
  explicit Pump(Script& script)
      : script_(script),
        receiver_([this](Message&& message) { Deliver(message); },
                  [this](const Message& message) {
                    Deliver(message);
                    return true;
                  }) {}

  void Run() {
    while (script_.HasMore()) {
      Step();
    }
    is_enabled_ = true;
    receiver_.SetQueueEnabled();
    Require(waiting_.empty(), "everything comes out in the end");
  }

 private:
  void Step() {
    switch (script_.Below(6)) {
      case 0:
        receiver_.Send(Next());
        CheckAtOnce();
        break;
      case 1:
        receiver_.Receive(Next());
        CheckAtOnce();
        break;
      case 2:
        receiver_.SendImmediately(Passing());
        break;
      case 3:
        receiver_.ReceiveImmediately(Passing());
        break;
      case 4:
        receiver_.ProcessQueue();
        break;
      default:
        is_enabled_ = true;
        receiver_.SetQueueEnabled();
    }
  }

  Message Next() {
    ++handed_in_;
    if (is_enabled_) {
      at_once_ = handed_in_;
    } else {
      waiting_.push_back(handed_in_);
    }
    return Message::CreateNotification("queued", handed_in_);
  }
  void CheckAtOnce() const { Require(at_once_ == 0, "what need not wait does not"); }
  Message Passing() {
    ++passing_;
    return Message::CreateNotification("passing", passing_);
  }

  void Deliver(const Message& message) {
    const Message::Notification* const notification = message.GetNotification();
    Require(notification != nullptr, "a message keeps its type");
    const auto* const number = std::get_if<std::int64_t>(&notification->params);
    Require(number != nullptr, "a message keeps its content");
    if (notification->method == "queued") {
      Require(is_enabled_, "the queue holds until it may flow");
      TakeQueued(*number);
    } else {
      Require(*number == passing_, "what passes the queue by comes at once");
    }
    Nest();
  }

  // What had to wait comes in its order, anything else at once.
  void TakeQueued(std::int64_t number) {
    if (number == at_once_) {
      at_once_ = 0;
    } else {
      Require(!waiting_.empty() && waiting_.front() == number, "the queue keeps its order");
      waiting_.pop_front();
    }
  }

  // A handler goes on with the script.
  void Nest() {
    if (depth_ < kMostNesting && script_.HasMore() && script_.Flag()) {
      ++depth_;
      Step();
      --depth_;
    }
  }

  Script& script_;
  vorpc::details::Receiver receiver_;
  bool is_enabled_ = false;
  int depth_ = 0;
  std::int64_t handed_in_ = 0;
  std::int64_t at_once_ = 0;  // handed in, and not come out though nothing keeps it; 0: none
  std::deque<std::int64_t> waiting_;  // handed in before the queue might flow
  std::int64_t passing_ = 0;
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  Script script(data, size);
  Pump(script).Run();
  return 0;
}
