// Error lines of entries that must not throw, whatever the state of the process.
#ifndef TARV_SRC_LOG_H
#define TARV_SRC_LOG_H

#include <quarn/logger.h>

#include <iostream>
#include <new>
#include <string_view>

namespace tarv::details {

// An error line, written even when there is no memory left: it may be about just that.
inline void LogError(std::string_view location, std::string_view message) {
  try {
    QUARN_LOG_ERROR_AT(location) << message;
  } catch (const std::bad_alloc&) {
    // The level's tag is out; what the printer copies before it writes is the location.
    std::cout << location << message << '\n' << std::flush;
  }
}

}  // namespace tarv::details

#endif  // TARV_SRC_LOG_H
