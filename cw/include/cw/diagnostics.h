// The lines that channels and codecs write to standard error.
#ifndef CW_DIAGNOSTICS_H
#define CW_DIAGNOSTICS_H

#include <quarn/export.h>

#include <string_view>

namespace cw::internal {

// Writes `lines`, which end with a newline, at once. Never throws, whatever state std::cerr is in,
// and does not kill the process when nobody reads the pipe that they go to. Any thread.
void WriteDiagnostic(std::string_view lines);

// Says that a message on `channel`, a channel for method calls, is none. Any thread.
TARV_EXPORT void ReportNoMethodCall(std::string_view channel);

}  // namespace cw::internal

#endif  // CW_DIAGNOSTICS_H
