#include <quarn/escaped.h>
#include <quarn/internal/attempt_all.h>
#include <quarn/logger.h>

namespace quarn::details {
namespace {

void LogDropped(std::string_view reason) {
  QUARN_LOG_ERROR() << "Dropped an exception that followed another: " << Escaped{reason};
}

}  // namespace

void Attempts::Finish() const {
  if (first_ != nullptr) {
    std::rethrow_exception(first_);
  }
}

void Attempts::KeepCurrentException() noexcept {
  if (first_ == nullptr) {
    first_ = std::current_exception();
    return;
  }
  try {
    throw;
  } catch (const std::exception& exception) {
    LogDropped(exception.what());
  } catch (...) {
    LogDropped("it is no std::exception");
  }
}

}  // namespace quarn::details
