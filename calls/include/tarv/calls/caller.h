// tarv::Caller: calls the methods of a task, each with a deadline.
//
//   tarv::Caller caller(manager->CreateIpcClient("counting"),
//                       tarv::CallerOptions().TaskName("counting"));
//   caller.Call(kCount, {{"a b"}}).Then([](tarv::Outcome<Totals> totals) { ... });
#ifndef TARV_CALLS_CALLER_H
#define TARV_CALLS_CALLER_H

#include <tarv/calls/call.h>
#include <tarv/calls/call_options.h>
#include <tarv/calls/loop.h>
#include <tarv/calls/method.h>
#include <tarv/calls/metrics.h>
#include <vorpc/client.h>

#include <memory>
#include <utility>

namespace tarv {

namespace details {

template <class Result, class Parameter>
std::shared_ptr<TypedCallState<Result>> StartCall(const std::shared_ptr<CallerCore>& core,
                                                  std::string_view method, bool has_progress,
                                                  Parameter&& parameter,
                                                  const CallOptions& options) {
  auto state = std::make_shared<TypedCallState<Result>>(core, method, options, has_progress);
  cw::EncodableValue params;
  Misfit misfit;
  const bool fits =
      Conversion<Parameter>::Write(std::forward<Parameter>(parameter), params, misfit);
  state->Start(std::move(params), fits, misfit);
  return state;
}

template <class Result>
std::shared_ptr<TypedCallState<Result>> StartCall(const std::shared_ptr<CallerCore>& core,
                                                  std::string_view method, bool has_progress,
                                                  const CallOptions& options) {
  auto state = std::make_shared<TypedCallState<Result>>(core, method, options, has_progress);
  state->Start({}, true, Misfit());
  return state;
}

}  // namespace details

// Belongs to the thread of its loop: create and destroy it there. Call may be used from any thread;
// what it does happens on the loop's. No callback runs inside Call, or inside a Call's operations.
//
// Calls are kept until the task has connected and are then sent in order; one that ends before that
// is never sent. The task hears of one that times out or is cancelled by the notification
// "$/cancelRequest", and its late answer is dropped. When the connection ends every open call ends
// with the reason, and so does each later one: start the task again with a new client and Caller,
// or use a KeptTask.
class Caller {
 public:
  // Runs the client: call its Run() no more. A null client, which a manager gives that cannot start
  // the task, ends every call with kNotStarted. Throws std::bad_alloc: let the client go then.
  explicit Caller(std::shared_ptr<vorpc::IClient> client,
                  std::shared_ptr<Loop> loop = Loop::OfThisThread(),
                  const CallerOptions& options = {});
  Caller(std::shared_ptr<vorpc::IClient> client, const CallerOptions& options)
      : Caller(std::move(client), Loop::OfThisThread(), options) {}
  // Ends the open calls, and any that their callbacks begin meanwhile, with kReleased before it
  // returns.
  ~Caller();
  Caller(const Caller&) = delete;
  Caller& operator=(const Caller&) = delete;

  // Calls the method. The clock of the call's deadline starts now. A parameter that no message
  // holds ends the call with kBadArguments. Throws std::bad_alloc: there is no call then, and the
  // task is told that nobody waits if it has been asked. A call that exists ends, whatever memory
  // runs out for: with what it would have ended with, or with kOutOfMemory; at its deadline where
  // another thread than the loop's brought the news and found no memory to pass it on.
  template <class Result, class Parameter, class Progress>
  tarv::Call<Result, Progress> Call(const Method<Result(Parameter), Progress>& method,
                                    typename details::Given<Parameter>::Type parameter,
                                    const CallOptions& options = {}) {
    return tarv::Call<Result, Progress>(details::StartCall<Result, Parameter>(
        core_, method.name, !std::is_void_v<Progress>, std::move(parameter), options));
  }
  template <class Result, class Progress>
  tarv::Call<Result, Progress> Call(const Method<Result(), Progress>& method,
                                    const CallOptions& options = {}) {
    return tarv::Call<Result, Progress>(
        details::StartCall<Result>(core_, method.name, !std::is_void_v<Progress>, options));
  }

  // Counts and times of the calls so far, by method. Any thread.
  Metrics GetMetrics() const;

 private:
  std::shared_ptr<details::CallerCore> core_;
};

}  // namespace tarv

#endif  // TARV_CALLS_CALLER_H
