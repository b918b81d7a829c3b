// The work of a Service, without the types of its methods.
#ifndef TARV_CALLS_SRC_SERVICE_CORE_H
#define TARV_CALLS_SRC_SERVICE_CORE_H

#include <tarv/calls/resuming.h>
#include <tarv/calls/service.h>

#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <unordered_map>
#include <utility>
#include <vector>

#include "meter.h"

namespace tarv::details {

// Runs on the loop's thread: now, when this is it.
template <class Function>
void RunOn(const std::shared_ptr<Loop>& loop, Function&& function) {
  if (loop->IsCurrent()) {
    function();
  } else {
    loop->Post(std::forward<Function>(function));
  }
}

// All that is needed to answer a request. Gone once it is answered.
struct OpenRequest {
  std::shared_ptr<Loop> loop;
  std::string method;
  std::string id;
  std::weak_ptr<vorpc::IServer> server;
  std::weak_ptr<ServiceCore> core;
  std::shared_ptr<Meter> meter;  // may outlive the service
  MethodMeter* method_meter;
  Loop::Time started;
  std::unique_ptr<vorpc::IReply> reply;
  std::shared_ptr<OpenRequest> next;  // of those that are owed an answer
};

// What a request is answered with: a result, or code, message and data of an error.
struct Answer {
  static Answer Error(std::int32_t code, std::string message) {
    return {false, code, std::move(message), {}};
  }
  bool is_result;
  std::int32_t code;
  std::string message;
  cw::EncodableValue value;
};

// Answers the request. The loop's thread. Throws std::bad_alloc: it is still open then.
void SendAnswer(OpenRequest& open, Answer&& answer);
// Has the service answer, as soon as something else happens there, that memory ran out. Any thread.
void Owe(const std::shared_ptr<OpenRequest>& open) noexcept;

// Belongs to the loop's thread, but for the operations that say otherwise.
class ServiceCore : public std::enable_shared_from_this<ServiceCore> {
 public:
  ServiceCore(std::shared_ptr<vorpc::IServer> server, std::shared_ptr<Loop> loop);

  void Start();
  // Throws std::bad_alloc: nothing has changed then.
  void Add(MethodDescription description, Handler handler);
  void Withdraw() noexcept;
  void Forget(const std::string& id) noexcept;
  // A coroutine that has begun.
  void Keep(std::shared_ptr<void> work);
  void LetGo(const void* work) noexcept;
  const std::shared_ptr<Loop>& GetLoop() const { return loop_; }

  // Any thread.
  Description GetDescription() const;
  Meter& GetMeter() { return *meter_; }
  vorpc::IServer& GetServer() { return *server_; }
  // The request shall be answered that memory ran out.
  void Owe(std::shared_ptr<OpenRequest> open) noexcept;

 private:
  struct Entry {
    MethodDescription description;
    Handler handler;
  };
  using EntryPtr = std::shared_ptr<Entry>;
  using ReplyPtr = std::unique_ptr<vorpc::IReply>;

  void WithdrawMethod(const std::string& name) noexcept;
  std::shared_ptr<OpenRequest> TakeOwed() noexcept;
  void AnswerOwed() noexcept;
  template <class Get>
  void AnswerAlways(std::string_view method, Get get);
  void Listen(const std::string& method, const EntryPtr& entry);
  void Receive(const EntryPtr& entry, const cw::EncodableValue& params, ReplyPtr& reply);
  void PassOn(const EntryPtr& entry, const cw::EncodableValue& params, ReplyPtr& reply);
  void Serve(const EntryPtr& entry, const cw::EncodableValue& params, ReplyPtr& reply);
  RequestPtr Open(const std::string& method, const cw::EncodableValue& params, ReplyPtr& reply);
  std::shared_ptr<OpenRequest> MakeOpen(const std::string& method, const vorpc::IReply& reply);
  void OnCancel(const vorpc::Message::Notification& cancel);

  const std::shared_ptr<vorpc::IServer> server_;
  const std::shared_ptr<Loop> loop_;
  const std::shared_ptr<Meter> meter_ = std::make_shared<Meter>();
  mutable std::mutex mutex_;  // guards the entries and what is owed
  std::map<std::string, EntryPtr> entries_;
  std::shared_ptr<OpenRequest> owed_;  // the latest of a chain
  std::vector<EntryPtr> own_;          // of the methods that every task has
  std::unordered_map<std::string, std::weak_ptr<RequestState>> open_;  // by id
  Resuming::Works kept_;
};

}  // namespace tarv::details

#endif  // TARV_CALLS_SRC_SERVICE_CORE_H
