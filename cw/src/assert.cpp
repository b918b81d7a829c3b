#include "assert.h"

#include <cw/internal/diagnostics.h>

#include <cstdlib>
#include <string>

namespace cw::internal {

void FailAssertion(std::string_view condition, std::string_view location,
                   std::string_view explanation) {
  std::string line(location);
  line.append(": Assertion \"").append(condition).append("\" failed: ");
  line.append(explanation).append("\n");
  WriteDiagnostic(line);
  std::abort();
}

}  // namespace cw::internal
