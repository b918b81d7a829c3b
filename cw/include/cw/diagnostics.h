// The line on standard error that the templates of method and event channels share.
#ifndef CW_DIAGNOSTICS_H
#define CW_DIAGNOSTICS_H

#include <quarn/export.h>

#include <string_view>

namespace cw::internal {

// Says that a message on `channel`, a channel for method calls, is none. Any thread.
TARV_EXPORT void ReportNoMethodCall(std::string_view channel);

}  // namespace cw::internal

#endif  // CW_DIAGNOSTICS_H
