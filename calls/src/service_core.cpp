#include "service_core.h"

#include <cw/codec_limits.h>
#include <tarv/version.h>

#include <cstddef>
#include <new>
#include <stdexcept>
#include <utility>

#include "guarded.h"

namespace tarv::details {

namespace {

using vorpc::Message;

constexpr std::int32_t kVersionOfCalls = 1;
constexpr char kNoMemoryForRequest[] = "Memory ran out for the request.";
constexpr char kNoMemoryForAnswer[] = "Memory ran out for the answer.";
// The levels of a message around a parameter, at most.
constexpr std::size_t kEnvelopeLevels = 3;

void CheckName(const std::string& name) {
  if (name.empty()) {
    throw std::invalid_argument("tarv::Service::On: a method needs a name");
  }
  if (name.rfind("$/", 0) == 0) {
    throw std::invalid_argument("tarv::Service::On: the name '" + name +
                                "' is refused: \"$/\" begins names of the layer's own");
  }
}

// As a server answers for a method that has no handler any more.
void AnswerUnknown(vorpc::IReply& reply, const std::string& method) {
  reply.SendError(Message::kUnknownMethod, "Unknown method '" + method + "()'", {});
}

void Count(const OpenRequest& open, std::optional<CallReason> reason, std::size_t bytes) {
  if (open.meter) {
    open.meter->AddBytes(open.method_meter, bytes, 0);
    open.meter->End(open.method_meter, reason, open.loop->Now() - open.started);
  }
}

CallReason ReasonOf(const Answer& error) {
  return error.code == kRequestCancelled ? CallReason::kCancelled : CallReason::kAnswered;
}

void Forget(const OpenRequest& open) {
  if (const auto core = open.core.lock()) {
    core->Forget(open.id);
  }
}

}  // namespace

void SendAnswer(OpenRequest& open, Answer&& answer) {
  if (answer.is_result) {
    const std::size_t bytes = open.meter ? CountBytes(answer.value) : 0;
    open.reply->SendResult(std::move(answer.value));
    Count(open, std::nullopt, bytes);
  } else {
    open.reply->SendError(answer.code, answer.message, answer.value);
    Count(open, ReasonOf(answer), 0);
  }
  Forget(open);
}

void Owe(const std::shared_ptr<OpenRequest>& open) noexcept {
  if (const auto core = open->core.lock()) {
    core->Owe(open);
  }
}

ServiceCore::ServiceCore(std::shared_ptr<vorpc::IServer> server, std::shared_ptr<Loop> loop)
    : server_(std::move(server)), loop_(std::move(loop)) {}

// Answers a method that every task has, without counting it.
template <class Get>
void ServiceCore::AnswerAlways(std::string_view method, Get get) {
  const auto entry = own_.emplace_back(std::make_shared<Entry>());
  entry->handler = [get = std::move(get)](const cw::EncodableValue& /*params*/,
                                          const RequestPtr& request) {
    request->AnswerResult(ToEncodable(get()));
  };
  Listen(std::string(method), entry);
}

void ServiceCore::Start() {
  AnswerAlways(kDescribe.name, [weak = weak_from_this()] {
    const auto core = weak.lock();
    return core ? core->GetDescription() : Description();
  });
  AnswerAlways(kMetrics.name, [meter = meter_] { return meter->GetMetrics(); });
  server_->OnNotify("$/cancelRequest",
                    [weak = weak_from_this(), loop = loop_](const Message::Notification& cancel) {
                      RunOn(loop, [weak, cancel] {
                        if (const auto core = weak.lock()) {
                          core->OnCancel(cancel);
                        }
                      });
                    });
}

void ServiceCore::Add(MethodDescription description, Handler handler) {
  CheckName(description.name);
  const std::string name = description.name;
  std::map<std::string, EntryPtr> added;
  EntryPtr& entry = added[name];
  entry = std::make_shared<Entry>(Entry{std::move(description), std::move(handler)});
  Listen(name, entry);
  const std::lock_guard lock(mutex_);
  const auto found = entries_.find(name);
  if (found == entries_.end()) {
    entries_.merge(added);
  } else {
    found->second.swap(entry);  // the old entry is destroyed after unlocking
  }
}

// The server's function holds nothing of the service's, so that it may stay there without it.
void ServiceCore::Listen(const std::string& method, const EntryPtr& entry) {
  server_->OnRequest(
      method, [weak = weak_from_this(), weak_entry = std::weak_ptr<Entry>(entry)](
                  const std::string& name, const cw::EncodableValue& params, ReplyPtr&& reply) {
        const auto core = weak.lock();
        const auto locked = weak_entry.lock();
        if (core && locked) {
          core->Receive(locked, params, reply);
        } else {
          AnswerUnknown(*reply, name);
        }
      });
}

// Any thread. A request that memory runs out for is answered so. When there is none for that answer
// either, the exception ends the connection.
void ServiceCore::Receive(const EntryPtr& entry, const cw::EncodableValue& params,
                          ReplyPtr& reply) {
  try {
    if (loop_->IsCurrent()) {
      Serve(entry, params, reply);
    } else {
      PassOn(entry, params, reply);
    }
  } catch (const std::bad_alloc&) {
    if (reply == nullptr) {
      throw;  // it is with its handler
    }
    reply->SendError(Message::kInternalError, kNoMemoryForRequest, {});
  }
}

void ServiceCore::PassOn(const EntryPtr& entry, const cw::EncodableValue& params, ReplyPtr& reply) {
  const auto shared = std::make_shared<ReplyPtr>(std::move(reply));
  try {
    loop_->Post([weak = weak_from_this(), entry, params, shared] {
      RunGuarded("the request", entry->description.name, [&] {
        if (const auto core = weak.lock()) {
          core->Receive(entry, params, *shared);
        } else {
          AnswerUnknown(**shared, entry->description.name);
        }
      });
    });
  } catch (const std::bad_alloc&) {
    reply = std::move(*shared);
    throw;
  }
}

void ServiceCore::Withdraw() noexcept {
  AnswerOwed();
  std::map<std::string, EntryPtr> entries;
  {
    const std::lock_guard lock(mutex_);
    entries.swap(entries_);
  }
  for (const auto& [name, entry] : entries) {
    WithdrawMethod(name);
  }
  WithdrawMethod(std::string(kDescribe.name));
  WithdrawMethod(std::string(kMetrics.name));
  own_.clear();
  Resuming::DestroyOutside(std::exchange(kept_, {}));
}

// Without memory for that, the server's function stays, and answers that the method is unknown.
void ServiceCore::WithdrawMethod(const std::string& name) noexcept {
  RunGuarded("the withdrawal", name, [&] { server_->OnRequest(name, nullptr); });
}

void ServiceCore::Owe(std::shared_ptr<OpenRequest> open) noexcept {
  const std::lock_guard lock(mutex_);
  open->next = std::move(owed_);
  owed_ = std::move(open);
}

std::shared_ptr<OpenRequest> ServiceCore::TakeOwed() noexcept {
  const std::lock_guard lock(mutex_);
  auto open = std::move(owed_);
  if (open) {
    owed_ = std::move(open->next);
  }
  return open;
}

void ServiceCore::AnswerOwed() noexcept {
  while (const auto open = TakeOwed()) {
    try {
      SendAnswer(*open, Answer::Error(Message::kInternalError, kNoMemoryForAnswer));
    } catch (const std::bad_alloc&) {
      Owe(open);
      return;
    }
  }
}

void ServiceCore::Serve(const EntryPtr& entry, const cw::EncodableValue& params, ReplyPtr& reply) {
  const auto self = shared_from_this();  // the handler may end the service
  Resuming resuming;                     // and may be a coroutine
  AnswerOwed();
  const RequestPtr request = Open(entry->description.name, params, reply);
  try {
    entry->handler(params, request);
  } catch (...) {
    request->AnswerException(std::current_exception());
  }
}

// Takes the reply when nothing can fail any more.
RequestPtr ServiceCore::Open(const std::string& method, const cw::EncodableValue& params,
                             ReplyPtr& reply) {
  auto open = MakeOpen(method, *reply);
  auto request = std::make_shared<RequestState>(*open);
  open_[open->id] = request;
  if (open->meter) {
    meter_->Begin(open->method_meter);
    meter_->AddBytes(open->method_meter, 0, CountBytes(params));
  }
  open->reply = std::move(reply);
  request->Open(std::move(open));
  return request;
}

std::shared_ptr<OpenRequest> ServiceCore::MakeOpen(const std::string& method,
                                                   const vorpc::IReply& reply) {
  auto open = std::make_shared<OpenRequest>();
  open->loop = loop_;
  open->method = method;
  open->id = reply.GetRequestId().value;
  open->server = server_;
  open->core = weak_from_this();
  open->started = loop_->Now();
  if (!method.empty()) {  // the layer's own requests are not counted
    open->meter = meter_;
    open->method_meter = meter_->Find(method);
  }
  return open;
}

void ServiceCore::Forget(const std::string& id) noexcept { open_.erase(id); }

void ServiceCore::OnCancel(const Message::Notification& cancel) {
  AnswerOwed();
  const auto* const id = cancel.params.Find<std::string>("id");
  const auto found = id != nullptr ? open_.find(*id) : open_.end();
  if (found == open_.end()) {
    return;  // answered, or not of this service
  }
  if (const RequestPtr request = found->second.lock()) {
    request->Cancel();
  }
}

void ServiceCore::Keep(std::shared_ptr<void> work) {
  const void* const key = work.get();
  kept_.emplace(key, std::move(work));
}

void ServiceCore::LetGo(const void* work) noexcept {
  const auto found = kept_.find(work);
  if (found != kept_.end()) {
    const auto last = std::move(found->second);  // destroyed after it is out of the map
    kept_.erase(found);
  }
}

// On another thread, without memory, it goes with the service.
static void LetGoOn(const std::shared_ptr<Loop>& loop, const std::weak_ptr<ServiceCore>& core,
                    const void* work) noexcept {
  RunGuarded("the end of a coroutine", "Service", [&] {
    RunOn(loop, [core, work] {
      if (const auto locked = core.lock()) {
        locked->LetGo(work);
      }
    });
  });
}

std::function<void()> KeepUntilDone(const RequestState& request, std::shared_ptr<void> work) {
  const auto core = request.GetCore().lock();
  if (!core) {
    return [] {};
  }
  std::function<void()> let_go = [weak = request.GetCore(), key = work.get(),
                                  loop = core->GetLoop()] { LetGoOn(loop, weak, key); };
  core->Keep(std::move(work));
  return let_go;
}

Description ServiceCore::GetDescription() const {
  Description description;
  description.limits.nesting = static_cast<std::int32_t>(cw::kMaxNesting - kEnvelopeLevels);
  description.versions = {TARV_VERSION, kVersionOfCalls};
  const std::lock_guard lock(mutex_);
  for (const auto& [name, entry] : entries_) {
    description.methods.push_back(entry->description);
  }
  return description;
}

}  // namespace tarv::details
