// Runs what belongs to the user where nobody is left to hear an exception but the log.
#ifndef TARV_CALLS_SRC_GUARDED_H
#define TARV_CALLS_SRC_GUARDED_H

#include <quarn/escaped.h>
#include <quarn/logger.h>

#include <exception>
#include <string>

namespace tarv::details {

template <class Function>
void RunGuarded(const char* what, const std::string& method, Function&& function) noexcept {
  try {
    function();
  } catch (const std::exception& error) {
    QUARN_LOG_ERROR() << "An exception left " << what << " of '" << quarn::Escaped{method}
                      << "', which must not throw: " << quarn::Escaped{error.what()};
  } catch (...) {
    QUARN_LOG_ERROR() << "An exception of unknown type left " << what << " of '"
                      << quarn::Escaped{method} << "', which must not throw.";
  }
}

}  // namespace tarv::details

#endif  // TARV_CALLS_SRC_GUARDED_H
