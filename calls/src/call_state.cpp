#include <quarn/escaped.h>
#include <quarn/logger.h>
#include <tarv/calls/call_state.h>

#include <exception>
#include <future>
#include <new>

#include "caller_core.h"
#include "guarded.h"

namespace tarv::details {

namespace {

Loop::Time DeadlineOf(Loop::Time started, Duration timeout) {
  return timeout >= Loop::Time::max() - started ? Loop::Time::max() : started + timeout;
}

}  // namespace

CallState::CallState(std::shared_ptr<CallerCore> core, std::string_view method,
                     const CallOptions& options, bool has_progress)
    : core_(std::move(core)),
      method_(method),
      started_(core_->GetLoop()->Now()),
      deadline_(DeadlineOf(started_, options.timeout)),
      has_progress_(has_progress) {}

CallState::~CallState() = default;

void CallState::Start(cw::EncodableValue&& params, bool fits, const Misfit& misfit) {
  params_ = std::move(params);
  if (!fits) {
    misfit_ = misfit.GetText("params");
  }
  core_->Start(shared_from_this());
}

void CallState::Consume(Consumer consumer) {
  {
    const std::lock_guard lock(mutex_);
    ClaimConsumer();
    consumer_.swap(consumer);
    if (!finished_) {
      return;
    }
  }
  try {
    core_->DeliverLater(shared_from_this());
  } catch (const std::bad_alloc&) {
    const std::lock_guard lock(mutex_);
    consumer_.swap(consumer);  // destroyed after unlocking
    consumed_ = false;
    throw;
  }
}

bool CallState::WaitForEnd() {
  if (core_->GetLoop()->IsCurrent()) {
    return false;
  }
  const auto ended = std::make_shared<std::promise<void>>();
  Consumer consumer = [ended](CallState& /*state*/) { ended->set_value(); };
  {
    const std::lock_guard lock(mutex_);
    ClaimConsumer();
    if (finished_) {
      return true;
    }
    consumer_.swap(consumer);
  }
  ended->get_future().wait();
  return true;
}

// With the lock held.
void CallState::ClaimConsumer() {
  if (consumed_) {
    QUARN_LOG_FATAL() << "The call of '" << quarn::Escaped{method_}
                      << "' has a second consumer. One of Then, Wait and co_await, once, gets the "
                         "outcome of a call.";
  }
  consumed_ = true;
}

void CallState::SetProgressHandler(ProgressHandler handler) {
  auto shared = std::make_shared<const ProgressHandler>(std::move(handler));
  const std::lock_guard lock(mutex_);
  // After the swap this holds the old handler; it is destroyed after unlocking.
  progress_handler_.swap(shared);
}

void CallState::Cancel() { core_->Cancel(shared_from_this()); }

CallError CallState::MakeWouldBlockError() const {
  return CallNames{method_, core_->GetTaskName(), core_->GetPreparedError()}.WouldBlock();
}

void CallState::HandleProgress(const cw::EncodableValue& value) {
  std::shared_ptr<const ProgressHandler> handler;
  {
    const std::lock_guard lock(mutex_);
    handler = progress_handler_;
  }
  if (handler) {
    RunGuarded("the progress handler", method_, [&] { (*handler)(value); });
  }
}

void CallState::Finish() noexcept {
  Consumer consumer;
  std::shared_ptr<const ProgressHandler> progress;  // destroyed after unlocking
  {
    const std::lock_guard lock(mutex_);
    finished_ = true;
    consumer.swap(consumer_);
    progress.swap(progress_handler_);
  }
  if (consumer) {
    RunGuarded("the consumer", method_, [&] { consumer(*this); });
  }
}

}  // namespace tarv::details
