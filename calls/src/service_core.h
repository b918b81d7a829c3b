// The work of a Service, without the types of its methods.
#ifndef TARV_CALLS_SRC_SERVICE_CORE_H
#define TARV_CALLS_SRC_SERVICE_CORE_H

#include <tarv/calls/service.h>

#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <unordered_map>
#include <vector>

#include "meter.h"

namespace tarv::details {

// Runs on the loop's thread: now, when this is it.
inline void RunOn(const std::shared_ptr<Loop>& loop, Loop::Function function) {
  if (loop->IsCurrent()) {
    function();
  } else {
    loop->Post(std::move(function));
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
};

// Belongs to the loop's thread, but for the operations that say otherwise.
class ServiceCore : public std::enable_shared_from_this<ServiceCore> {
 public:
  ServiceCore(std::shared_ptr<vorpc::IServer> server, std::shared_ptr<Loop> loop);

  void Start();
  void Add(MethodDescription description, Handler handler);
  void Withdraw();
  void Forget(const std::string& id);
  // A coroutine that has begun.
  void Keep(std::shared_ptr<void> work);
  void LetGo(const void* work);
  const std::shared_ptr<Loop>& GetLoop() const { return loop_; }

  // Any thread.
  Description GetDescription() const;
  Meter& GetMeter() { return *meter_; }
  vorpc::IServer& GetServer() { return *server_; }

 private:
  struct Entry {
    MethodDescription description;
    Handler handler;
  };
  using EntryPtr = std::shared_ptr<Entry>;
  using ReplyPtr = std::unique_ptr<vorpc::IReply>;

  void DestroyKept();
  template <class Get>
  void AnswerAlways(std::string_view method, Get get);
  void Listen(const std::string& method, const EntryPtr& entry);
  void Serve(const EntryPtr& entry, const cw::EncodableValue& params, ReplyPtr reply);
  RequestPtr Open(const std::string& method, const cw::EncodableValue& params, ReplyPtr reply);
  void OnCancel(const vorpc::Message::Notification& cancel);

  const std::shared_ptr<vorpc::IServer> server_;
  const std::shared_ptr<Loop> loop_;
  const std::shared_ptr<Meter> meter_ = std::make_shared<Meter>();
  mutable std::mutex mutex_;  // guards the entries
  std::map<std::string, EntryPtr> entries_;
  std::unordered_map<std::string, std::weak_ptr<RequestState>> open_;  // by id
  std::unordered_map<const void*, std::shared_ptr<void>> kept_;
};

}  // namespace tarv::details

#endif  // TARV_CALLS_SRC_SERVICE_CORE_H
