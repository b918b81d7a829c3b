// tarv::Request: one request to a task, to be answered now or later.
#ifndef TARV_CALLS_REQUEST_H
#define TARV_CALLS_REQUEST_H

#include <tarv/calls/call_error.h>
#include <tarv/calls/method.h>
#include <tarv/calls/request_state.h>
#include <tarv/calls/value.h>

#include <cstdint>
#include <functional>
#include <memory>
#include <stdexcept>
#include <string>
#include <type_traits>
#include <utility>

namespace tarv {

// Throw it out of a handler to answer with an error of your own. Other exceptions are answered with
// -32603 and what().
class RequestError : public std::runtime_error {
 public:
  RequestError(std::int32_t code, const std::string& message, cw::EncodableValue data = {})
      : runtime_error(message), code_(code), data_(std::move(data)) {}

  std::int32_t GetCode() const { return code_; }
  const cw::EncodableValue& GetData() const { return data_; }

 private:
  std::int32_t code_;
  cw::EncodableValue data_;
};

namespace details {

template <class Value>
void AnswerWith(RequestState& state, Value&& value) {
  cw::EncodableValue written;
  Misfit misfit;
  if (Conversion<Value>::Write(std::forward<Value>(value), written, misfit)) {
    state.AnswerResult(std::move(written));
  } else {
    state.AnswerMisfit(misfit, "result");
  }
}

}  // namespace details

// One request. Copies are handles of the same one. Any thread may use one, each thread its own. Answer
// it once: when the last handle goes without an answer, the application gets -32603 "... was dropped
// by its handler", or -32800 once it has cancelled. It may outlive its Service.
//
// Every operation may throw std::bad_alloc, and has done nothing then: a request that was to be
// answered is open, and may be answered with less, or later. One that is let go of while there is no
// memory for its answer either is answered -32603 when its Service has to do with anything else.
template <class Result, class Step = void>
class Request {
 public:
  explicit Request(std::shared_ptr<details::RequestState> state) : state_(std::move(state)) {}

  // A result that no message holds is answered with an error that says so. A second answer is
  // logged and dropped.
  template <class Value = Result>
  void Answer(typename details::Given<Value>::Type value) const {
    details::AnswerWith<Value>(*state_, std::move(value));
  }
  template <class Value = Result, class = std::enable_if_t<std::is_void_v<Value>>>
  void Answer() const {
    state_->AnswerResult({});
  }
  void Fail(std::int32_t code, std::string message, cw::EncodableValue data = {}) const {
    state_->AnswerError(code, std::move(message), std::move(data));
  }

  // Reports a step. After the answer or a cancellation it does nothing. Throws ValueError for a step
  // that no message holds.
  template <class Value = Step>
  void Progress(typename details::Given<Value>::Type step) const {
    state_->SendProgress(ToEncodable<Value>(std::move(step), "progress"));
  }

  bool IsCancelled() const { return state_->IsCancelled(); }
  // Calls `callback` once, on the service's loop, when the application cancels, instead of an
  // earlier callback; soon, if it has already. Not after the answer.
  void OnCancel(std::function<void()> callback) const { state_->OnCancel(std::move(callback)); }

 private:
  std::shared_ptr<details::RequestState> state_;
};

}  // namespace tarv

#endif  // TARV_CALLS_REQUEST_H
