// The golden pairs of golden.inc.
#ifndef CW_TESTS_GOLDEN_H
#define CW_TESTS_GOLDEN_H

#include <cw/encodable_value.h>

#include <cmath>
#include <cstdint>
#include <string>
#include <vector>

#include "support/bytes.h"

namespace cw::test_support {

struct Golden {
  std::string name;
  EncodableValue value;
  Bytes bytes;
};

// Every pair, made once.
const std::vector<Golden>& Goldens();

}  // namespace cw::test_support

#endif  // CW_TESTS_GOLDEN_H
