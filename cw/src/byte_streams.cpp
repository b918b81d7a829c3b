#include <cw/byte_streams.h>

#include <iostream>
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

}  // namespace internal

void ByteBufferStreamReader::ReportInvalidRead() {
  std::cerr << "Invalid read in StandardCodecByteStreamReader\n";
}

}  // namespace cw
