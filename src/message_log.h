// TARV_LOG_MESSAGES=1: one readable line for each message between an application and its tasks, on the
// application's standard error.
//
//   12.031 app → wordcount id476_1 count({"texts": ["a b"]})
//   12.032 wordcount → app id476_1 count 0.4 ms {"total": 2}
#ifndef TARV_SRC_MESSAGE_LOG_H
#define TARV_SRC_MESSAGE_LOG_H

#include <chrono>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <unordered_map>

namespace vorpc {
class Message;
}

namespace tarv::details {

// Of one client. Any thread.
class MessageLog {
 public:
  // Whether the variable asks for it; looked up once in a process. All that a message costs without
  // it is this.
  static bool IsOn();
  // Null unless it is on.
  static std::unique_ptr<MessageLog> Create(const std::string& task);

  // What the application sends, and what it gets, as text.
  void OnSent(std::string_view text);
  void OnReceived(std::string_view text);

 private:
  using Clock = std::chrono::steady_clock;
  struct Request {
    std::string method;
    Clock::time_point sent;
  };

  explicit MessageLog(std::string task) : task_(std::move(task)) {}
  void Write(const std::string& from, const std::string& to, std::string_view text);
  std::string Describe(const vorpc::Message& message, std::string_view text);
  std::string TakeRequest(const std::string& id);

  const std::string task_;
  std::mutex mutex_;                                   // guards what follows
  std::unordered_map<std::string, Request> requests_;  // that have no answer yet, by id
};

}  // namespace tarv::details

#endif  // TARV_SRC_MESSAGE_LOG_H
