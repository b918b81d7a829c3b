#include <cw/diagnostics.h>
#include <cw/internal/diagnostics.h>
#include <quarn/escaped.h>
#include <quarn/logger.h>

#include <iostream>
#include <sstream>

namespace cw::internal {

void WriteDiagnostic(std::string_view lines) {
  quarn::logger::details::PipeSignalBlock block;
  std::ostream stream(std::cerr.rdbuf());
  if (stream << lines << std::flush) {
    block.SetAllWritten();
  }
}

void ReportNoMethodCall(std::string_view channel) {
  std::ostringstream line;
  line << "Error: a message on the channel \"" << quarn::Escaped{channel}
       << "\" is no method call.\n";
  WriteDiagnostic(line.str());
}

}  // namespace cw::internal
