// A script of operations on the message pump, handlers' own among them: what was handed in comes
// out once, in order, and nothing comes out of the queue before it may flow.
#include "receiver.h"

#include <vorpc/message.h>

#include <cstdint>
#include <string>
#include <vector>

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
    Require(delivered_ == handed_in_, "everything comes out in the end");
  }

 private:
  void Step() {
    switch (script_.Below(6)) {
      case 0:
        receiver_.Send(Next());
        break;
      case 1:
        receiver_.Receive(Next());
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

  Message Next() { return Message::CreateNotification("queued", ++handed_in_); }
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
      ++delivered_;
    } else {
      Require(*number == passing_, "what passes the queue by comes at once");
    }
    Nest();
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
  std::int64_t delivered_ = 0;
  std::int64_t passing_ = 0;
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  Script script(data, size);
  Pump(script).Run();
  return 0;
}
