// tarv::Call: the handle of one call to a task.
#ifndef TARV_CALLS_CALL_H
#define TARV_CALLS_CALL_H

#include <tarv/calls/call_state.h>
#include <tarv/calls/outcome.h>
#include <tarv/calls/value.h>

#include <functional>
#include <memory>
#include <string_view>
#include <type_traits>
#include <utility>

namespace tarv {

// Call::AsOutcome gives it to co_await.
template <class Result>
struct OutcomeOf {
  std::shared_ptr<details::TypedCallState<Result>> state;
};

// Made by Caller::Call. Copies are handles of the same call; dropping them changes nothing: the call
// goes on, and its consumer hears how it ended. Any thread may use a handle, each thread its own.
//
// Every call ends exactly once, with a value or a CallError. One consumer gets that outcome: one of
// Then, Wait and co_await, once; a second one is an error of the program and ends the process.
template <class Result, class Progress = void>
class Call {
 public:
  using State = details::TypedCallState<Result>;

  explicit Call(std::shared_ptr<State> state) : state_(std::move(state)) {}

  // Calls `consumer` once with the Outcome<Result>, on the loop's thread, never inside this
  // operation: also when the call has ended already. An exception of it is logged. Throws
  // std::bad_alloc: the call has no consumer then, and may be given one again.
  template <class Consumer>
  void Then(Consumer consumer) const {
    state_->Consume([consumer = std::move(consumer)](details::CallState& state) mutable {
      consumer(static_cast<State&>(state).TakeOutcome());
    });
  }

  // Waits for the end, on another thread than the loop's, which must be running meanwhile. On the
  // loop's own thread, which would wait for itself, it returns kWouldBlock at once, and the call
  // goes on and may still be consumed. Throws std::bad_alloc: so it may then.
  Outcome<Result> Wait() const {
    if (!state_->WaitForEnd()) {
      return state_->MakeWouldBlockError();
    }
    return state_->TakeOutcome();
  }

  // Calls `handler` with each step that the task reports, on the loop's thread, instead of an
  // earlier handler, until the call ends. Set it on the loop's thread right after the call to miss
  // none. A step that is not of the type Progress, or that memory runs out for, is logged and
  // dropped. Throws std::bad_alloc: the earlier handler stays.
  template <class Handler, class Step = Progress>
  void OnProgress(Handler handler) const {
    static_assert(
        !std::is_void_v<Step>,
        "tarv: this method reports no progress; Method<Result(Parameter), Progress> does");
    state_->SetProgressHandler([handler = std::move(handler)](const cw::EncodableValue& value) {
      handler(FromEncodable<Step>(value, "progress"));
    });
  }

  // Ends the call with kCancelled, unless it has ended, and tells the task, which need not work on;
  // without memory for that the task works on in vain. Throws std::bad_alloc: the call goes on then.
  void Cancel() const { state_->Cancel(); }

  // For co_await, see coroutine.h: `co_await call.AsOutcome()` gives the Outcome and throws nothing.
  OutcomeOf<Result> AsOutcome() const { return {state_}; }

 private:
  std::shared_ptr<State> state_;
};

}  // namespace tarv

#endif  // TARV_CALLS_CALL_H
