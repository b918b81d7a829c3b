#include <quarn/object.h>

#include <atomic>

namespace quarn::details {
namespace {

std::atomic<std::uint64_t> last_id{0};

}  // namespace

std::uint64_t CounterClient::GenerateId() {
  return last_id.fetch_add(1, std::memory_order_acq_rel) + 1;
}

ObjectImpl::~ObjectImpl() { ResetDispatcher(); }

void ObjectImpl::Invoke(const std::function<void()>& task, unsigned int param) const {
  std::shared_ptr<IDispatcher> dispatcher;
  {
    const std::shared_lock lock(mutex_);
    dispatcher = dispatcher_;
  }
  if (dispatcher) {
    dispatcher->Invoke(task, param);
  }
}

void ObjectImpl::ResetDispatcher() {
  const std::unique_lock lock(mutex_);
  dispatcher_.reset();
}

}  // namespace quarn::details
