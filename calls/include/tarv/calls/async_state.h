// Async and waiting for a call, as the compiler asks for them. Read coroutine.h first.
#ifndef TARV_CALLS_ASYNC_STATE_H
#define TARV_CALLS_ASYNC_STATE_H

#include <tarv/calls/call_state.h>
#include <tarv/calls/outcome.h>
#include <tarv/calls/resuming.h>

#include <coroutine>
#include <exception>
#include <functional>
#include <memory>
#include <optional>
#include <type_traits>
#include <utility>

namespace tarv {

template <class Result>
class Async;

namespace details {

// The part that promises of all types share.
struct AsyncPromiseBase {
  // Resumes who waits, or tells who keeps the coroutine; either may destroy it.
  struct FinalAwaiter {
    bool await_ready() const noexcept { return false; }
    template <class Promise>
    std::coroutine_handle<> await_suspend(std::coroutine_handle<Promise> done) const noexcept {
      AsyncPromiseBase& promise = done.promise();
      if (promise.waiting) {
        return promise.waiting;
      }
      if (const auto callback = std::exchange(promise.on_done, nullptr)) {
        callback();
      }
      return std::noop_coroutine();
    }
    void await_resume() const noexcept {}
  };

  AsyncPromiseBase() = default;
  AsyncPromiseBase(const AsyncPromiseBase&) = delete;
  AsyncPromiseBase& operator=(const AsyncPromiseBase&) = delete;
  ~AsyncPromiseBase() {
    if (exception) {
      LogLostException(exception);
    }
  }

  std::suspend_never initial_suspend() const noexcept { return {}; }
  FinalAwaiter final_suspend() const noexcept { return {}; }
  void unhandled_exception() { exception = std::current_exception(); }
  void ThrowException() {
    if (exception) {
      std::rethrow_exception(std::exchange(exception, nullptr));
    }
  }

  std::coroutine_handle<> waiting;
  std::function<void()> on_done;
  std::exception_ptr exception;
};

template <class Result>
struct AsyncPromise : AsyncPromiseBase {
  Async<Result> get_return_object();
  void return_value(Result value) { result.emplace(std::move(value)); }
  Result Take() {
    ThrowException();
    return std::move(*result);
  }

  std::optional<Result> result;
};

template <>
struct AsyncPromise<void> : AsyncPromiseBase {
  Async<void> get_return_object();
  void return_void() const {}
  void Take() { ThrowException(); }
};

template <class Result>
struct AsyncAwaiter {
  bool await_ready() const { return handle.done(); }
  void await_suspend(std::coroutine_handle<> waiting) { handle.promise().waiting = waiting; }
  Result await_resume() { return handle.promise().Take(); }

  std::coroutine_handle<AsyncPromise<Result>> handle;
};

// A coroutine that waits for a call. Its end, with the coroutine's, leaves the call alone.
template <class Result>
class CallAwaiter {
 public:
  explicit CallAwaiter(std::shared_ptr<TypedCallState<Result>> state) : state_(std::move(state)) {}
  CallAwaiter(const CallAwaiter&) = delete;
  CallAwaiter& operator=(const CallAwaiter&) = delete;
  ~CallAwaiter() { *waiting_ = nullptr; }

  bool await_ready() const { return false; }
  void await_suspend(std::coroutine_handle<> waiting) {
    *waiting_ = waiting;
    state_->Consume([shared = waiting_](CallState& /*state*/) {
      if (const auto handle = std::exchange(*shared, nullptr)) {
        Resuming resuming;
        handle.resume();
      }
    });
  }

 protected:
  Outcome<Result> TakeOutcome() { return state_->TakeOutcome(); }

 private:
  std::shared_ptr<TypedCallState<Result>> state_;
  // Null once nobody waits.
  std::shared_ptr<std::coroutine_handle<>> waiting_ = std::make_shared<std::coroutine_handle<>>();
};

template <class Result>
class OutcomeAwaiter : public CallAwaiter<Result> {
 public:
  using CallAwaiter<Result>::CallAwaiter;
  Outcome<Result> await_resume() { return this->TakeOutcome(); }
};

template <class Result>
class ValueAwaiter : public CallAwaiter<Result> {
 public:
  using CallAwaiter<Result>::CallAwaiter;
  Result await_resume() {
    if constexpr (std::is_void_v<Result>) {
      static_cast<void>(this->TakeOutcome().Take());
    } else {
      return this->TakeOutcome().Take();
    }
  }
};

}  // namespace details
}  // namespace tarv

#endif  // TARV_CALLS_ASYNC_STATE_H
