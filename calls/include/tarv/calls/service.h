// tarv::Service: answers the typed methods of a task.
//
//   auto service = tarv::Service::For(server);
//   service->On(kCount, [](Texts texts) -> Totals { ... });
//   service->Run();
#ifndef TARV_CALLS_SERVICE_H
#define TARV_CALLS_SERVICE_H

#include <tarv/calls/description.h>
#include <tarv/calls/loop.h>
#include <tarv/calls/method.h>
#include <tarv/calls/metrics.h>
#include <tarv/calls/request.h>
#include <tarv/calls/workers.h>
#include <vorpc/server.h>

#include <atomic>
#include <exception>
#include <functional>
#include <memory>
#include <type_traits>
#include <utility>

namespace tarv {

namespace details {

class ServiceCore;

using RequestPtr = std::shared_ptr<RequestState>;
// Answers the request, or has it answered. Its exception becomes the answer.
using Handler = std::function<void(const cw::EncodableValue& params, const RequestPtr& request)>;

// Runs the work of a request on a worker's thread, unless it was cancelled while it was queued.
// Its exception becomes the answer.
void RunWorker(const RequestPtr& request, const std::function<void()>& work);

// Keeps what a handler began until the function that this returns is called, or the service ends.
std::function<void()> KeepUntilDone(const RequestState& request, std::shared_ptr<void> work);

template <class T>
cw::EncodableValue ShapeOrNull() {
  if constexpr (std::is_void_v<T>) {
    return {};
  } else {
    return ShapeOf<T>();
  }
}

template <class Parameter, class Result, class Step, class Method>
MethodDescription Describe(const Method& method) {
  return {std::string(method.name), std::string(method.help), ShapeOrNull<Parameter>(),
          ShapeOrNull<Result>(), ShapeOrNull<Step>()};
}

// A handler gets them in front of its request: the parameter, if the method has one.
template <class Parameter>
struct Arguments {
  Parameter value{};

  bool Read(const cw::EncodableValue& params, Misfit& misfit) {
    return Conversion<Parameter>::Read(params, value, misfit);
  }
  template <class Callee, class... More>
  static constexpr bool kFits = std::is_invocable_v<Callee&, Parameter, More...>;
  template <class Callee, class... More>
  decltype(auto) Call(Callee& callee, More&&... more) {
    return callee(std::move(value), std::forward<More>(more)...);
  }
};

template <>
struct Arguments<void> {
  static bool Read(const cw::EncodableValue& /*params*/, Misfit& /*misfit*/) { return true; }
  template <class Callee, class... More>
  static constexpr bool kFits = std::is_invocable_v<Callee&, More...>;
  template <class Callee, class... More>
  static decltype(auto) Call(Callee& callee, More&&... more) {
    return callee(std::forward<More>(more)...);
  }
};

// Calls what returns the result, and answers with it.
template <class Result, class Parameter, class Callee, class... More>
void AnswerReturned(const RequestPtr& request, Arguments<Parameter>& arguments, Callee& callee,
                    More&&... more) {
  if constexpr (std::is_void_v<Result>) {
    arguments.Call(callee, std::forward<More>(more)...);
    request->AnswerResult({});
  } else {
    AnswerWith<Result>(*request, arguments.Call(callee, std::forward<More>(more)...));
  }
}

// Whether a handler that returns a Returned is answered for by what somebody adds: coroutine.h does,
// for Async.
template <class Returned, class RequestType, class = void>
inline constexpr bool kIsAnsweredLater = false;
template <class Returned, class RequestType>
inline constexpr bool kIsAnsweredLater<
    Returned, RequestType,
    std::void_t<decltype(TarvAnswerLater(std::declval<Returned>(), std::declval<RequestType>(),
                                         std::declval<const RequestPtr&>()))>> = true;

template <class Result, class Parameter, class Step, class Callee>
Handler MakeHandler(Callee callee) {
  using RequestType = Request<Result, Step>;
  using Args = Arguments<Parameter>;
  constexpr bool kReturns = Args::template kFits<Callee>;
  static_assert(kReturns || Args::template kFits<Callee, RequestType>,
                "tarv: a handler of this method takes its parameter, if it has one, and perhaps a "
                "tarv::Request of the method's result and progress");
  return [callee = std::move(callee)](const cw::EncodableValue& params,
                                      const RequestPtr& request) mutable {
    Args arguments;
    Misfit misfit;
    if (!arguments.Read(params, misfit)) {
      request->AnswerMisfit(misfit, "params");
    } else if constexpr (kReturns) {
      AnswerReturned<Result>(request, arguments, callee);
    } else if constexpr (std::is_void_v<decltype(arguments.Call(callee, RequestType(request)))>) {
      arguments.Call(callee, RequestType(request));
    } else {
      // The handler is a coroutine; coroutine.h declares this.
      TarvAnswerLater(arguments.Call(callee, RequestType(request)), RequestType(request), request);
    }
  };
}

// On a thread of the workers.
template <class Result, class Step, class Args, class Callee>
void AnswerByWorker(const RequestPtr& request, Args& arguments, Callee& callee,
                    const std::shared_ptr<const std::atomic<bool>>& ending) {
  RunWorker(request, [&] {
    if constexpr (Args::template kFits<Callee>) {
      AnswerReturned<Result>(request, arguments, callee);
    } else {
      AnswerReturned<Result>(request, arguments, callee, Running<Step>(request, ending));
    }
  });
}

template <class Result, class Parameter, class Step, class Callee>
Handler MakeWorkerHandler(Workers& workers, Callee callee) {
  using Args = Arguments<Parameter>;
  constexpr bool kAlone = Args::template kFits<Callee>;
  static_assert(
      kAlone || Args::template kFits<Callee, Running<Step>>,
      "tarv: a handler on Workers takes the method's parameter, if it has one, and perhaps "
      "a const tarv::Running<Progress>&, and returns the method's result");
  return [post = workers.GetPost(), ending = workers.GetEndingFlag(),
          shared = std::make_shared<Callee>(std::move(callee))](const cw::EncodableValue& params,
                                                                const RequestPtr& request) {
    Args arguments;
    Misfit misfit;
    if (!arguments.Read(params, misfit)) {
      request->AnswerMisfit(misfit, "params");
      return;
    }
    post([arguments = std::move(arguments), ending, shared, request]() mutable {
      AnswerByWorker<Result, Step>(request, arguments, *shared, ending);
    });
  };
}

}  // namespace details

// Belongs to the thread of its loop: make it, use it and destroy it there. Handlers run there, too,
// but for those on Workers.
//
// A handler that throws answers -32603 with what(), or with what its RequestError says; wrong
// parameters are answered with -32602 and the place before it runs. Plain OnRequest handlers live
// beside on the same server, undescribed. Each task also answers kDescribe and kMetrics.
//
// Every operation may throw std::bad_alloc, and has changed nothing then. A request that memory runs
// out for is answered -32603; without memory for that, std::bad_alloc goes to who brought the
// request, and a server of a ManagerWrapper ends its connection.
class Service {
  struct PrivateTag {
    explicit PrivateTag() = default;
  };

 public:
  // The service of this server, the same while anybody holds it: keep it as long as the task shall
  // answer. Null without a server. The loop is that of the first.
  static std::shared_ptr<Service> For(const std::shared_ptr<vorpc::IServer>& server,
                                      std::shared_ptr<Loop> loop = Loop::OfThisThread());
  Service(const std::shared_ptr<vorpc::IServer>& server, std::shared_ptr<Loop> loop, PrivateTag);
  // Withdraws the methods, and destroys the coroutines that have not ended, whose requests are
  // answered as dropped. Other open requests may still answer.
  ~Service();
  Service(const Service&) = delete;
  Service& operator=(const Service&) = delete;

  // Answers the method with `handler`, instead of an earlier one. Throws std::invalid_argument for
  // an empty name and for one that begins with "$/". A handler is one of these; without the
  // parameter, for a method that has none:
  //
  //   Result (Parameter)                             returns the result
  //   void (Parameter, Request<Result, Progress>)    answers the request, now or later
  //   Async<Result> (Parameter, Request<Result, Progress>)   a coroutine; see coroutine.h
  template <class Result, class Parameter, class Step, class Callee>
  void On(const Method<Result(Parameter), Step>& method, Callee handler) {
    Add(details::Describe<Parameter, Result, Step>(method),
        details::MakeHandler<Result, Parameter, Step>(std::move(handler)));
  }
  template <class Result, class Step, class Callee>
  void On(const Method<Result(), Step>& method, Callee handler) {
    Add(details::Describe<void, Result, Step>(method),
        details::MakeHandler<Result, void, Step>(std::move(handler)));
  }
  // The same on `workers`: Result (Parameter, const Running<Progress>&) or Result (Parameter).
  // Several run at a time. Requests that come when the workers have ended are answered as dropped.
  template <class Result, class Parameter, class Step, class Callee>
  void On(const Method<Result(Parameter), Step>& method, Workers& workers, Callee handler) {
    Add(details::Describe<Parameter, Result, Step>(method),
        details::MakeWorkerHandler<Result, Parameter, Step>(workers, std::move(handler)));
  }
  template <class Result, class Step, class Callee>
  void On(const Method<Result(), Step>& method, Workers& workers, Callee handler) {
    Add(details::Describe<void, Result, Step>(method),
        details::MakeWorkerHandler<Result, void, Step>(workers, std::move(handler)));
  }

  // The server's Run: the handlers are in place.
  void Run();

  // Counts and times of the calls so far, by method. Any thread.
  Metrics GetMetrics() const;
  Description GetDescription() const;

 private:
  void Add(MethodDescription description, details::Handler handler);

  std::shared_ptr<details::ServiceCore> core_;
};

}  // namespace tarv

#endif  // TARV_CALLS_SERVICE_H
