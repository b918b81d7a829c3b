// What docs/codec.md leaves out.
#include <cw/codec_limits.h>
#include <cw/encodable_value.h>
#include <cw/method_codec.h>
#include <cw/standard_codec.h>
#include <vorpc/server.h>

#include <cstdint>
#include <string>
#include <variant>

struct Point {
  double x = 0;
  double y = 0;
};
