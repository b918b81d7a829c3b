#include <tarv/calls/service.h>
#include <tarv/calls/workers.h>

#include <algorithm>
#include <condition_variable>
#include <deque>
#include <mutex>
#include <thread>
#include <vector>

#include "guarded.h"

namespace tarv {

// Lives until its last thread has ended.
class Workers::Pool : public std::enable_shared_from_this<Pool> {
 public:
  // Throws std::bad_alloc, or std::system_error when there is no thread to be had: none runs then.
  void Start(std::size_t threads) {
    try {
      for (std::size_t i = 0; i < std::max<std::size_t>(threads, 1); ++i) {
        threads_.emplace_back([self = shared_from_this()] { self->Work(); });
      }
    } catch (...) {
      End();
      throw;
    }
  }

  void Post(Job job) {
    if (!job) {
      return;  // to a worker it would be the end
    }
    {
      const std::lock_guard lock(mutex_);
      if (*ending_) {
        return;  // the job is destroyed after unlocking
      }
      jobs_.push_back(std::move(job));
    }
    changed_.notify_one();
  }

  // Takes no memory.
  void End() noexcept {
    {
      const std::lock_guard lock(mutex_);
      *ending_ = true;
    }
    changed_.notify_all();
    while (const Job dropped = Drop()) {
    }
    for (std::thread& thread : threads_) {
      if (thread.get_id() == std::this_thread::get_id()) {
        thread.detach();
      } else {
        thread.join();
      }
    }
  }

  const std::shared_ptr<std::atomic<bool>>& GetEnding() const { return ending_; }

 private:
  void Work() {
    while (Job job = Take()) {
      details::RunGuarded("a job", "Workers", job);
    }
  }

  // An empty one at the end.
  Job Take() {
    std::unique_lock lock(mutex_);
    changed_.wait(lock, [this] { return *ending_ || !jobs_.empty(); });
    return *ending_ ? Job() : TakeFirst();
  }
  // An empty one when there is none.
  Job Drop() {
    const std::lock_guard lock(mutex_);
    return TakeFirst();
  }
  // With the lock held.
  Job TakeFirst() {
    if (jobs_.empty()) {
      return {};
    }
    Job job = std::move(jobs_.front());
    jobs_.pop_front();
    return job;
  }

  const std::shared_ptr<std::atomic<bool>> ending_ = std::make_shared<std::atomic<bool>>(false);
  std::mutex mutex_;  // guards the jobs
  std::condition_variable changed_;
  std::deque<Job> jobs_;
  std::vector<std::thread> threads_;
};

Workers::Workers(std::size_t threads) : pool_(std::make_shared<Pool>()) { pool_->Start(threads); }

Workers::~Workers() { pool_->End(); }

std::function<void(Workers::Job)> Workers::GetPost() const {
  return [pool = std::weak_ptr<Pool>(pool_)](Job job) {
    if (const auto locked = pool.lock()) {
      locked->Post(std::move(job));
    }
  };
}

std::shared_ptr<const std::atomic<bool>> Workers::GetEndingFlag() const {
  return pool_->GetEnding();
}

void details::RunWorker(const RequestPtr& request, const std::function<void()>& work) {
  if (request->IsCancelled()) {
    return;  // its end answers it
  }
  try {
    work();
  } catch (...) {
    request->AnswerException(std::current_exception());
  }
}

}  // namespace tarv
