#include <cw/diagnostics.h>
#include <quarn/escaped.h>
#include <quarn/logger.h>

#include <iostream>
#include <sstream>

namespace cw::internal {

void WriteDiagnostic(std::string_view lines) {
  const quarn::logger::details::PipeSignalBlock block;
  std::ostream stream(std::cerr.rdbuf());
  stream << lines << std::flush;
}

void ReportNoMethodCall(std::string_view channel) {
  std::ostringstream line;
  line << "Error: a message on the channel \"" << quarn::Escaped{channel}
       << "\" is no method call.\n";
  WriteDiagnostic(line.str());
}

}  // namespace cw::internal
