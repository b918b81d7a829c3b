// The codec's figures as lines that a table of several programs can be made of.
#ifndef BENCH_CODEC_LINES_H
#define BENCH_CODEC_LINES_H

#include <cw/encodable_value.h>

#include <string>

namespace tarv::bench {

// Prints what encoding and decoding `value` takes, the rates and the size of its bytes: section,
// case, peer, metric, value and unit, separated by tabs.
void PrintCodecLines(const std::string& kase, const cw::EncodableValue& value);

}  // namespace tarv::bench

#endif  // BENCH_CODEC_LINES_H
