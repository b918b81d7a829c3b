#include <quarn/escaped.h>
#include <quarn/logger.h>
#include <tarv/calls/call_error.h>
#include <tarv/calls/request.h>

#include <new>
#include <utility>

#include "guarded.h"
#include "service_core.h"

namespace tarv::details {

namespace {

using vorpc::Message;

// Where nobody is left to hear that memory ran out: the service answers later.
void SendOrOwe(const std::shared_ptr<OpenRequest>& open, Answer&& answer) noexcept {
  try {
    SendAnswer(*open, std::move(answer));
  } catch (const std::bad_alloc&) {
    Owe(open);
  }
}

void SendOrPost(const std::shared_ptr<OpenRequest>& open, Answer&& answer) {
  if (open->loop->IsCurrent()) {
    SendAnswer(*open, std::move(answer));
  } else {
    open->loop->Post(
        [open, answer = std::move(answer)]() mutable { SendOrOwe(open, std::move(answer)); });
  }
}

}  // namespace

RequestState::RequestState(const OpenRequest& request)
    : loop_(request.loop),
      method_(request.method),
      id_(request.id),
      server_(request.server),
      core_(request.core) {}

void RequestState::Open(std::shared_ptr<OpenRequest> request) noexcept {
  open_ = std::move(request);
}

RequestState::~RequestState() {
  const auto open = open_;
  if (!open) {
    return;
  }
  try {
    Give(MakeAnswerOfEnd());
  } catch (const std::bad_alloc&) {
    Owe(open);
  }
}

Answer RequestState::MakeAnswerOfEnd() const {
  if (cancelled_) {
    return Answer::Error(kRequestCancelled, "The request '" + method_ + "' was cancelled.");
  }
  return Answer::Error(Message::kInternalError,
                       "The request '" + method_ + "' was dropped by its handler, unanswered.");
}

void RequestState::Give(Answer&& answer) {
  Taken taken = Take();
  if (!taken.open) {
    QUARN_LOG_ERROR() << "The request '" << quarn::Escaped{method_}
                      << "' has its answer; another one was given and is dropped.";
    return;
  }
  try {
    SendOrPost(taken.open, std::move(answer));
  } catch (const std::bad_alloc&) {
    PutBack(std::move(taken));
    throw;
  }
}

RequestState::Taken RequestState::Take() {
  Taken taken;
  const std::lock_guard lock(mutex_);
  taken.open.swap(open_);
  taken.on_cancel.swap(on_cancel_);
  return taken;
}

void RequestState::PutBack(Taken&& taken) noexcept {
  const std::lock_guard lock(mutex_);
  open_.swap(taken.open);
  on_cancel_.swap(taken.on_cancel);
}

void RequestState::AnswerResult(cw::EncodableValue&& result) {
  Give({true, 0, {}, std::move(result)});
}

void RequestState::AnswerError(std::int32_t code, std::string message, cw::EncodableValue data) {
  Give({false, code, std::move(message), std::move(data)});
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
  try {
    loop_->Post([self = shared_from_this()] { self->Cancel(); });
  } catch (const std::bad_alloc&) {
    const std::lock_guard lock(mutex_);
    on_cancel_.swap(callback);  // destroyed after unlocking
    throw;
  }
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
