#include <cw/byte_streams.h>
#include <cw/internal/diagnostics.h>

#include <stdexcept>
#include <string>

namespace cw {

namespace internal {

void ThrowTooDeep(const char* action) {
  throw std::length_error("cw: cannot " + std::string(action) +
                          " a value whose lists and maps nest deeper than " +
                          std::to_string(kMaxNesting) + " levels");
}

void ThrowTooManyMadeUp() {
  throw std::length_error("cw: the message announces more than " + std::to_string(kMaxMadeUpItems) +
                          " items that its bytes do not hold; it is damaged or hostile");
}

void FaultReports::AddInvalidRead() {
  if (Count()) {
    Add("Invalid read in StandardCodecByteStreamReader\n");
  }
}

void FaultReports::AddUnknownType(std::uint8_t type) {
  if (Count()) {
    Add("Unknown type in StandardCodecSerializer::ReadValueOfType: " + std::to_string(type) + "\n");
  }
}

bool FaultReports::Count() {
  if (faults_ > kMaxReportedFaults) {
    return false;
  }
  if (++faults_ <= kMaxReportedFaults) {
    return true;
  }
  Add("The message has more faults; the lines about them are left out.\n");
  return false;
}

void FaultReports::Add(const std::string& line) {
  held_ += line;
  if (!holds_) {
    Write();
  }
}

void FaultReports::Write() {
  WriteDiagnostic(held_);
  held_.clear();
}

}  // namespace internal

}  // namespace cw
