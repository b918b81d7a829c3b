#include "service_core.h"

#include <cw/codec_limits.h>
#include <tarv/calls/resuming.h>
#include <tarv/version.h>

#include <stdexcept>
#include <utility>

namespace tarv::details {

namespace {

using vorpc::Message;

constexpr std::int32_t kVersionOfCalls = 1;
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

}  // namespace

ServiceCore::ServiceCore(std::shared_ptr<vorpc::IServer> server, std::shared_ptr<Loop> loop)
    : server_(std::move(server)), loop_(std::move(loop)) {}

// Answers a method that every task has, without counting it.
template <class Get>
void ServiceCore::AnswerAlways(std::string_view method, Get get) {
  const auto entry = std::make_shared<Entry>();
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
  auto entry = std::make_shared<Entry>(Entry{std::move(description), std::move(handler)});
  Listen(name, entry);
  const std::lock_guard lock(mutex_);
  // After the swap this holds the old entry; it is destroyed after unlocking.
  entries_[name].swap(entry);
}

void ServiceCore::Listen(const std::string& method, const EntryPtr& entry) {
  server_->OnRequest(
      method, [weak = weak_from_this(), loop = loop_, entry](
                  const std::string& /*name*/, const cw::EncodableValue& params, ReplyPtr&& reply) {
        if (loop->IsCurrent()) {
          if (const auto core = weak.lock()) {
            core->Serve(entry, params, std::move(reply));
          }
          return;
        }
        const auto shared = std::make_shared<ReplyPtr>(std::move(reply));
        loop->Post([weak, entry, params, shared] {
          if (const auto core = weak.lock()) {
            core->Serve(entry, params, std::move(*shared));
          }
        });
      });
}

void ServiceCore::Withdraw() {
  std::map<std::string, EntryPtr> entries;
  {
    const std::lock_guard lock(mutex_);
    entries.swap(entries_);
  }
  for (const auto& [name, entry] : entries) {
    server_->OnRequest(name, nullptr);
  }
  server_->OnRequest(kDescribe.name, nullptr);
  server_->OnRequest(kMetrics.name, nullptr);
  DestroyKept();
}

// At once, so that they touch nothing that goes after the service; but later if one of them is what
// ends the service, as nothing destroys a coroutine that runs.
void ServiceCore::DestroyKept() {
  if (Resuming::IsAnywhere()) {
    loop_->Post([kept = std::exchange(kept_, {})] {});
  }
  // One at a time: what a coroutine holds may end others.
  while (!kept_.empty()) {
    const auto work = std::move(kept_.begin()->second);
    kept_.erase(kept_.begin());
  }
}

void ServiceCore::Serve(const EntryPtr& entry, const cw::EncodableValue& params, ReplyPtr reply) {
  const auto self = shared_from_this();  // the handler may end the service
  const Resuming resuming;               // and may be a coroutine
  const std::string& name = entry->description.name;
  const RequestPtr request = Open(name, params, std::move(reply));
  try {
    entry->handler(params, request);
  } catch (...) {
    request->AnswerException(std::current_exception());
  }
}

RequestPtr ServiceCore::Open(const std::string& method, const cw::EncodableValue& params,
                             ReplyPtr reply) {
  auto open = std::make_unique<OpenRequest>();
  open->loop = loop_;
  open->method = method;
  open->id = reply->GetRequestId().value;
  open->server = server_;
  open->core = weak_from_this();
  open->started = loop_->Now();
  open->reply = std::move(reply);
  if (!method.empty()) {  // the layer's own requests are not counted
    open->meter = meter_;
    open->method_meter = meter_->Begin(method);
    meter_->AddBytes(open->method_meter, 0, CountBytes(params));
  }
  const std::string id = open->id;
  auto request = std::make_shared<RequestState>(std::move(open));
  open_[id] = request;
  return request;
}

void ServiceCore::Forget(const std::string& id) { open_.erase(id); }

void ServiceCore::OnCancel(const Message::Notification& cancel) {
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

void ServiceCore::LetGo(const void* work) {
  const auto found = kept_.find(work);
  if (found != kept_.end()) {
    const auto last = std::move(found->second);  // destroyed after it is out of the map
    kept_.erase(found);
  }
}

std::function<void()> KeepUntilDone(const RequestState& request, std::shared_ptr<void> work) {
  const auto core = request.GetCore().lock();
  if (!core) {
    return [] {};
  }
  const void* const key = work.get();
  core->Keep(std::move(work));
  return [weak = request.GetCore(), key, loop = core->GetLoop()] {
    RunOn(loop, [weak, key] {
      if (const auto locked = weak.lock()) {
        locked->LetGo(key);
      }
    });
  };
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
