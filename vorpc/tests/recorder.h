// What the tests of the JSON-RPC layer share.
#ifndef VORPC_TESTS_RECORDER_H
#define VORPC_TESTS_RECORDER_H

#include <vorpc/message.h>

#include <functional>
#include <mutex>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

namespace vorpc::test_support {

// Stands in for a transport: keeps what is sent.
class Recorder {
 public:
  std::function<void(Message&&)> Send() {
    return [this](Message&& message) {
      const std::lock_guard lock(mutex_);
      sent_.push_back(std::move(message));
    };
  }

  std::vector<Message> GetSent() const {
    const std::lock_guard lock(mutex_);
    return sent_;
  }
  std::size_t CountSent() const { return GetSent().size(); }
  Message GetLast() const { return GetSent().back(); }

 private:
  mutable std::mutex mutex_;
  std::vector<Message> sent_;
};

// The error of a message or response that must have one.
inline Message::Error ErrorOf(const Message& message) {
  const auto* const response = message.GetResponse();
  const auto* const error = response != nullptr ? response->GetError() : message.GetError();
  return error != nullptr ? *error : Message::Error(0, "the message carries no error");
}

// A response whose outcome was lost when assigning it threw.
inline Message ResponseWithoutOutcome(const Message::ID& id) {
  struct Thrower {
    operator std::string() const { throw std::runtime_error("thrown on purpose"); }
  };
  Message::Response response(id, 5);
  try {
    response.outcome.emplace<1>(1, Thrower());
  } catch (const std::runtime_error&) {
    return Message(std::move(response));
  }
  throw std::logic_error("the response still has an outcome");
}

}  // namespace vorpc::test_support

#endif  // VORPC_TESTS_RECORDER_H
