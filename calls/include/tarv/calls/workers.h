// tarv::Workers: threads that do a task's long work, so that its loop stays free to listen.
#ifndef TARV_CALLS_WORKERS_H
#define TARV_CALLS_WORKERS_H

#include <tarv/calls/method.h>
#include <tarv/calls/request_state.h>
#include <tarv/calls/value.h>

#include <atomic>
#include <cstddef>
#include <functional>
#include <memory>
#include <utility>

namespace tarv {

// Give it to Service::On. Any thread. Handlers run on its threads and touch neither server nor
// reply: their answers and steps go out from the service's loop.
class Workers {
 public:
  using Job = std::function<void()>;

  // At least one thread. Throws std::bad_alloc, or std::system_error when the system has none.
  explicit Workers(std::size_t threads);
  // Drops what is queued, whose requests are answered as dropped, and waits for what runs; handlers
  // see IsCancelled(). A handler that ends its own Workers is not waited for.
  ~Workers();
  Workers(const Workers&) = delete;
  Workers& operator=(const Workers&) = delete;

  // Runs the job on one of the threads; jobs begin in order. Its exception is logged. An empty job
  // does nothing. Throws std::bad_alloc: the job is gone then.
  void Post(Job job) { GetPost()(std::move(job)); }

  // Post, for those who may outlive the object: a job is then destroyed at once.
  std::function<void(Job)> GetPost() const;
  // Becomes true when the object ends.
  std::shared_ptr<const std::atomic<bool>> GetEndingFlag() const;

 private:
  class Pool;
  std::shared_ptr<Pool> pool_;
};

// A request as a handler on Workers sees it: without the answer, which is the value that it
// returns.
template <class Step = void>
class Running {
 public:
  Running(std::shared_ptr<details::RequestState> state,
          std::shared_ptr<const std::atomic<bool>> ending)
      : state_(std::move(state)), ending_(std::move(ending)) {}

  // Whether nobody waits for the result any more, or the Workers end. Long work asks now and then,
  // and then returns anything or throws.
  bool IsCancelled() const { return state_->IsCancelled() || *ending_; }

  // Reports a step. After a cancellation it does nothing. Throws ValueError for a step that no
  // message holds.
  template <class Value = Step>
  void Progress(typename details::Given<Value>::Type step) const {
    state_->SendProgress(ToEncodable<Value>(std::move(step), "progress"));
  }

 private:
  std::shared_ptr<details::RequestState> state_;
  std::shared_ptr<const std::atomic<bool>> ending_;
};

}  // namespace tarv

#endif  // TARV_CALLS_WORKERS_H
