// Makes a conversation of the lines of a record: each message once, each answer with its request.
#ifndef TARVCTL_PAIRING_H
#define TARVCTL_PAIRING_H

#include <vorpc/message.h>

#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <string>
#include <unordered_map>
#include <utility>
#include <vector>

#include "record_line.h"

namespace tarvctl {

// One message, or one event in the life of a task.
struct Item {
  enum class Kind { kRequest, kResponse, kNotification, kOther, kStart, kEnd, kConnection, kFault };

  Kind kind = Kind::kOther;
  std::int64_t time = 0;  // nanoseconds since the record began
  std::string from;       // names of processes
  std::string to;
  std::string task;
  std::string id;             // of a request and its answer
  std::string method;         // an answer has its request's
  std::int64_t latency = -1;  // nanoseconds; -1 but for an answer whose request is known
  std::size_t bytes = 0;      // of the message's text
  bool is_error = false;
  vorpc::Message message;
  std::string text;  // of an event, or of a message of another kind
};

// A request that has no answer.
struct Unanswered {
  std::string task;
  std::string id;
  std::string method;
  std::int64_t time = 0;
};

class Pairing {
 public:
  using Handle = std::function<void(Item&&)>;

  explicit Pairing(Handle handle) : handle_(std::move(handle)) {}

  // Lines come by their time.
  void Add(const RecordLine& line);
  // Requests that wait for an answer, by their time; those whose task has ended wait for ever.
  std::vector<Unanswered> GetUnanswered() const;

 private:
  struct Open {
    std::string method;
    std::int64_t time;
  };
  // Which message of which task it is: both ends write a line for it.
  using Mark = std::size_t;

  void AddMessage(const RecordLine& line);
  void AddEvent(const RecordLine& line);
  bool IsSecondLine(const RecordLine& line);
  void FillMessage(Item& item);
  void FillResponse(Item& item);
  void LearnFrom(const RecordLine& line, const vorpc::Message& message);
  std::string NameOf(std::int64_t pid) const;
  std::string PeerOf(const RecordLine& line) const;

  Handle handle_;
  std::int64_t begin_ = -1;
  std::map<std::int64_t, std::string> names_;                           // of processes
  std::map<std::pair<std::string, std::int64_t>, std::int64_t> peers_;  // by task and process
  std::unordered_map<Mark, int> sent_;  // messages whose second line may come
  std::deque<Mark> sent_order_;
  std::map<std::string, std::unordered_map<std::string, Open>> open_;  // by task and id
};

}  // namespace tarvctl

#endif  // TARVCTL_PAIRING_H
