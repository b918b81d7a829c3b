// Data that the benchmarks share.
#ifndef BENCH_DATA_H
#define BENCH_DATA_H

#include <cstddef>
#include <cstdint>
#include <vector>

namespace tarv::bench {

inline std::vector<std::uint8_t> Bytes(std::size_t size) {
  std::vector<std::uint8_t> bytes(size);
  for (std::size_t i = 0; i < size; ++i) {
    bytes[i] = static_cast<std::uint8_t>(i * 131 + (i >> 8));
  }
  return bytes;
}

}  // namespace tarv::bench

#endif  // BENCH_DATA_H
