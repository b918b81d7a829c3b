// tarv::testing::World: what a test can do with an application and its task, wherever the task runs.
#ifndef TARV_TESTING_WORLD_H
#define TARV_TESTING_WORLD_H

#include <tarv/calls/caller.h>
#include <tarv/testing/observed_call.h>

#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <utility>

namespace tarv::testing {

// A Loopback or a RealTask: a test that is written against this runs in both. Belongs to the thread
// that makes it.
class World {
 public:
  World() = default;
  virtual ~World();
  World(const World&) = delete;
  World& operator=(const World&) = delete;

  // The application's end, which nobody has run. Call runs it; run it yourself for plain requests.
  virtual std::shared_ptr<vorpc::IClient> GetClient() = 0;
  // The thread of the application, for what takes a loop.
  virtual std::shared_ptr<Loop> GetLoop() = 0;
  // Lets everything happen that is to happen now. A Loopback knows when nothing is left to do; a
  // RealTask waits until every call has ended, or its patience has.
  virtual void Pump() = 0;
  // Lets time pass: a Loopback at once, a RealTask as long as it takes, but no longer than until
  // every call has ended.
  virtual void Advance(Duration duration) = 0;
  // Ends the task by a signal.
  virtual void KillTask(int signal) = 0;
  // The conversation so far. See Transcript.
  virtual std::string GetTranscript() const = 0;

  // Calls a method through one Caller, which the world makes at the first call and keeps.
  template <class Result, class Parameter, class Progress>
  ObservedCall<Result, Progress> Call(const Method<Result(Parameter), Progress>& method,
                                      typename tarv::details::Given<Parameter>::Type parameter,
                                      const CallOptions& options = {}) {
    return Observe(GetCaller().Call(method, std::move(parameter), options), method.name);
  }
  template <class Result, class Progress>
  ObservedCall<Result, Progress> Call(const Method<Result(), Progress>& method,
                                      const CallOptions& options = {}) {
    return Observe(GetCaller().Call(method, options), method.name);
  }
  // The same without a contract, for plain handlers.
  ObservedCall<cw::EncodableValue> Call(std::string_view method, cw::EncodableValue params = {},
                                        const CallOptions& options = {});

  Caller& GetCaller();

 protected:
  using TellTranscript = std::function<std::string()>;

  virtual std::unique_ptr<Caller> MakeCaller() = 0;
  // Tells the transcript also when the world is gone.
  virtual TellTranscript GetTranscriptTeller() const = 0;
  // Ends the open calls with kReleased.
  void DropCaller() { caller_.reset(); }
  // Whether calls are open.
  bool HasOpenCalls() const;

 private:
  template <class Result, class Progress>
  ObservedCall<Result, Progress> Observe(tarv::Call<Result, Progress> call,
                                         std::string_view method) {
    ObservedCall<Result, Progress> observed(std::move(call), std::string(method),
                                            GetTranscriptTeller());
    return observed;
  }

  std::unique_ptr<Caller> caller_;
};

}  // namespace tarv::testing

#endif  // TARV_TESTING_WORLD_H
