// Coroutines need this of the library, which is C++17: no coroutine in here.
#include <quarn/escaped.h>
#include <quarn/logger.h>
#include <tarv/calls/resuming.h>

#include <utility>

namespace tarv::details {

namespace {

thread_local Resuming* outermost = nullptr;

// One at a time: what a coroutine holds may end others.
void Destroy(Resuming::Works&& works) noexcept {
  while (!works.empty()) {
    const auto work = std::move(works.begin()->second);
    works.erase(works.begin());
  }
}

}  // namespace

Resuming::Resuming() : is_outermost_(outermost == nullptr) {
  if (is_outermost_) {
    outermost = this;
  }
}

Resuming::~Resuming() {
  if (is_outermost_) {
    outermost = nullptr;
    Destroy(std::move(left_));
  }
}

void Resuming::DestroyOutside(Works&& works) noexcept {
  if (outermost != nullptr) {
    outermost->left_.merge(works);
  } else {
    Destroy(std::move(works));
  }
}

void LogLostException(const std::exception_ptr& exception) {
  try {
    std::rethrow_exception(exception);
  } catch (const std::exception& error) {
    QUARN_LOG_ERROR() << "An exception left a coroutine that nobody awaits: "
                      << quarn::Escaped{error.what()};
  } catch (...) {
    QUARN_LOG_ERROR() << "An exception of unknown type left a coroutine that nobody awaits.";
  }
}

}  // namespace tarv::details
