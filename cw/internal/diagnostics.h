// How the library writes lines to standard error.
#ifndef CW_INTERNAL_DIAGNOSTICS_H
#define CW_INTERNAL_DIAGNOSTICS_H

#include <string_view>

namespace cw::internal {

// Writes `lines`, which end with a newline, at once. Never throws, whatever state std::cerr is in,
// and does not kill the process when nobody reads the pipe that they go to. Any thread.
void WriteDiagnostic(std::string_view lines);

}  // namespace cw::internal

#endif  // CW_INTERNAL_DIAGNOSTICS_H
