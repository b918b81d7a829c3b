// What the benchmarks share.
#ifndef BENCH_BENCH_H
#define BENCH_BENCH_H

#include <benchmark/benchmark.h>

#include <array>
#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace tarv::bench {

inline std::vector<std::uint8_t> Bytes(std::size_t size) {
  std::vector<std::uint8_t> bytes(size);
  for (std::size_t i = 0; i < size; ++i) {
    bytes[i] = static_cast<std::uint8_t>(i * 131 + (i >> 8));
  }
  return bytes;
}

// The end of a main(): runs what is registered. Unless the command line says otherwise, it shows
// the median of several rounds in mixed order, so that a machine that changes its speed by itself
// changes it for all.
inline int RunBenchmarks(int argc, char** argv) {
  std::array<std::string, 3> defaults{"--benchmark_repetitions=7",
                                      "--benchmark_report_aggregates_only=true",
                                      "--benchmark_enable_random_interleaving=true"};
  std::vector<char*> arguments(argv, argv + 1);
  for (std::string& argument : defaults) {
    arguments.push_back(argument.data());
  }
  arguments.insert(arguments.end(), argv + 1, argv + argc);
  int count = static_cast<int>(arguments.size());
  benchmark::Initialize(&count, arguments.data());
  if (benchmark::ReportUnrecognizedArguments(count, arguments.data())) {
    return 2;
  }
  benchmark::RunSpecifiedBenchmarks();
  return 0;
}

}  // namespace tarv::bench

#endif  // BENCH_BENCH_H
