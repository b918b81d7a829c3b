// Coroutines: co_await for calls, and Async, the type of a coroutine that awaits them. C++20.
//
//   tarv::Async<> Show(tarv::Caller& caller) {
//     try {
//       const Totals totals = co_await caller.Call(kCount, texts);
//       Print(totals);
//     } catch (const tarv::CallError& error) { Complain(error.what()); }
//   }
#ifndef TARV_CALLS_COROUTINE_H
#define TARV_CALLS_COROUTINE_H

#include <tarv/calls/async_state.h>
#include <tarv/calls/call.h>
#include <tarv/calls/service.h>

#include <coroutine>
#include <memory>
#include <type_traits>
#include <utility>

namespace tarv {

// A coroutine that gives a Result. It runs from its call to its first co_await at once, and then on
// the thread that resumes it: for calls, their loop's.
//
// The object owns the coroutine: when it goes first, the coroutine is destroyed where it waits, and
// a call that it awaits goes on without it. So keep it, co_await it, or return it from a handler. An
// exception that leaves the coroutine goes to whoever awaits or takes the result, else to the log.
template <class Result = void>
class [[nodiscard]] Async {
 public:
  using promise_type = details::AsyncPromise<Result>;
  using Handle = std::coroutine_handle<promise_type>;

  explicit Async(Handle handle) : handle_(handle) {}
  Async(Async&& other) noexcept : handle_(std::exchange(other.handle_, nullptr)) {}
  Async& operator=(Async&& other) noexcept {
    Async(std::move(other)).Swap(*this);
    return *this;
  }
  ~Async() {
    if (handle_) {
      handle_.destroy();
    }
  }

  bool IsDone() const { return handle_.done(); }
  // The result, or the exception thrown. Once, when it is done.
  Result Take() { return handle_.promise().Take(); }
  // Calls `callback` when the coroutine is done, on the thread that it ends on; it may destroy this
  // object. Before that, once.
  void OnDone(std::function<void()> callback) { handle_.promise().on_done = std::move(callback); }

  // co_await std::move(async): the result, or the exception thrown. One coroutine, once.
  auto operator co_await() && { return details::AsyncAwaiter<Result>{handle_}; }

 private:
  void Swap(Async& other) noexcept { std::swap(handle_, other.handle_); }

  Handle handle_;
};

namespace details {

template <class Result>
Async<Result> AsyncPromise<Result>::get_return_object() {
  return Async<Result>(std::coroutine_handle<AsyncPromise>::from_promise(*this));
}

inline Async<void> AsyncPromise<void>::get_return_object() {
  return Async<void>(std::coroutine_handle<AsyncPromise>::from_promise(*this));
}

// Answers the request with what the handler's coroutine ends with.
template <class Result, class Step>
Async<void> AnswerWhenDone(Async<Result> work, Request<Result, Step> request, RequestPtr state) {
  try {
    if constexpr (std::is_void_v<Result>) {
      co_await std::move(work);
      request.Answer();
    } else {
      request.Answer(co_await std::move(work));
    }
  } catch (...) {
    state->AnswerException(std::current_exception());
  }
}

}  // namespace details

// How a Service answers for a handler that is a coroutine.
template <class Result, class Step>
void TarvAnswerLater(Async<Result> work, Request<Result, Step> request,
                     const details::RequestPtr& state) {
  auto answer = std::make_shared<Async<void>>(
      details::AnswerWhenDone(std::move(work), std::move(request), state));
  if (!answer->IsDone()) {
    Async<void>& kept = *answer;
    kept.OnDone(details::KeepUntilDone(*state, std::move(answer)));
  }
}

// Waits for a call: its value, or its CallError thrown. One consumer, as with Call::Then.
template <class Result, class Step>
auto operator co_await(const Call<Result, Step>& call) {
  return details::ValueAwaiter<Result>(call.AsOutcome().state);
}

// Waits for a call, and throws nothing: co_await call.AsOutcome().
template <class Result>
auto operator co_await(OutcomeOf<Result> call) {
  return details::OutcomeAwaiter<Result>(std::move(call.state));
}

}  // namespace tarv

#endif  // TARV_CALLS_COROUTINE_H
