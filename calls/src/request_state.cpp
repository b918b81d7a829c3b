#include <quarn/escaped.h>
#include <quarn/logger.h>
#include <tarv/calls/call_error.h>
#include <tarv/calls/request.h>

#include <utility>

#include "guarded.h"
#include "service_core.h"

namespace tarv::details {

namespace {

using vorpc::Message;

void Count(const OpenRequest& open, std::optional<CallReason> error, std::size_t bytes) {
  if (open.meter) {
    open.meter->AddBytes(open.method_meter, bytes, 0);
    open.meter->End(open.method_meter, error, open.loop->Now() - open.started);
  }
}

void Forget(const OpenRequest& open) {
  if (const auto core = open.core.lock()) {
    core->Forget(open.id);
  }
}

// std::function wants to be copied, which a request that is open cannot.
using SharedOpen = std::shared_ptr<OpenRequest>;

void SendResult(SharedOpen open, cw::EncodableValue&& result) {
  Count(*open, std::nullopt, open->meter ? CountBytes(result) : 0);
  const auto loop = open->loop;
  if (loop->IsCurrent()) {
    Forget(*open);
    open->reply->SendResult(std::move(result));
    return;
  }
  loop->Post([open = std::move(open), result = std::move(result)]() mutable {
    Forget(*open);
    open->reply->SendResult(std::move(result));
  });
}

void SendError(SharedOpen open, std::int32_t code, std::string message, cw::EncodableValue data) {
  Count(*open, code == kRequestCancelled ? CallReason::kCancelled : CallReason::kAnswered, 0);
  const auto loop = open->loop;
  RunOn(loop, [open = std::move(open), code, message = std::move(message), data = std::move(data)] {
    Forget(*open);
    open->reply->SendError(code, message, data);
  });
}

}  // namespace

RequestState::RequestState(std::unique_ptr<OpenRequest> request)
    : loop_(request->loop),
      method_(request->method),
      id_(request->id),
      server_(request->server),
      core_(request->core),
      open_(std::move(request)) {}

RequestState::~RequestState() {
  if (!open_) {
    return;
  }
  if (cancelled_) {
    SendError(std::move(open_), kRequestCancelled, "The request '" + method_ + "' was cancelled.",
              {});
  } else {
    SendError(std::move(open_), Message::kInternalError,
              "The request '" + method_ + "' was dropped by its handler, unanswered.", {});
  }
}

// Null, after a line in the log, when the request has an answer.
std::unique_ptr<OpenRequest> RequestState::TakeOpen() {
  std::function<void()> on_cancel;  // destroyed after unlocking
  std::unique_ptr<OpenRequest> open;
  {
    const std::lock_guard lock(mutex_);
    open = std::move(open_);
    on_cancel.swap(on_cancel_);
  }
  if (!open) {
    QUARN_LOG_ERROR() << "The request '" << quarn::Escaped{method_}
                      << "' has its answer; another one was given and is dropped.";
  }
  return open;
}

void RequestState::AnswerResult(cw::EncodableValue&& result) {
  if (auto open = TakeOpen()) {
    SendResult(std::move(open), std::move(result));
  }
}

void RequestState::AnswerError(std::int32_t code, std::string message, cw::EncodableValue data) {
  if (auto open = TakeOpen()) {
    SendError(std::move(open), code, std::move(message), std::move(data));
  }
}

void RequestState::AnswerMisfit(const Misfit& misfit, const char* root) {
  const bool own_fault = std::string_view(root) == "result";
  AnswerError(own_fault ? Message::kInternalError : kInvalidParams, misfit.GetText(root), {});
}

void RequestState::AnswerException(const std::exception_ptr& exception) {
  try {
    std::rethrow_exception(exception);
  } catch (const RequestError& error) {
    AnswerError(error.GetCode(), error.what(), error.GetData());
  } catch (const std::exception& error) {
    AnswerError(Message::kInternalError, error.what(), {});
  } catch (...) {
    AnswerError(Message::kInternalError,
                "The handler of '" + method_ + "' threw something that is no std::exception.", {});
  }
}

void RequestState::SendProgress(cw::EncodableValue&& value) {
  {
    const std::lock_guard lock(mutex_);
    if (!open_ || cancelled_) {
      return;
    }
  }
  RunOn(loop_, [server = server_, id = id_, value = std::move(value)] {
    if (const auto locked = server.lock()) {
      locked->SendNotify("$/progress", cw::EncodableMap{{"token", id}, {"value", value}});
    }
  });
}

void RequestState::OnCancel(std::function<void()> callback) {
  {
    const std::lock_guard lock(mutex_);
    if (!open_) {
      return;
    }
    on_cancel_.swap(callback);
    if (!cancelled_) {
      return;
    }
  }
  loop_->Post([self = shared_from_this()] { self->Cancel(); });
}

void RequestState::Cancel() {
  std::function<void()> callback;
  {
    const std::lock_guard lock(mutex_);
    cancelled_ = true;
    callback.swap(on_cancel_);
  }
  if (callback) {
    RunGuarded("the cancel callback", method_, callback);
  }
}

}  // namespace tarv::details
