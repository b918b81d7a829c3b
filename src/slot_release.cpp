#include "slot_release.h"

#include <quarn/escaped.h>
#include <quarn/internal/calls_out.h>
#include <quarn/logger.h>

#include <exception>

namespace tarv::details {
namespace {

void LogThrown(std::string_view reason) {
  QUARN_LOG_ERROR() << "A Release callback threw an exception, which it must not: "
                    << quarn::Escaped{reason};
}

}  // namespace

void CallRelease(void (*release)(void* user_data), void* user_data) noexcept {
  if (release == nullptr) {
    return;
  }
  quarn::details::CallsOut("a Release callback");
  try {
    release(user_data);
  } catch (const std::exception& exception) {
    LogThrown(exception.what());
  } catch (...) {
    LogThrown("it is no std::exception");
  }
}

}  // namespace tarv::details
