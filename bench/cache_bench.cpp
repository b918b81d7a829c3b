// Keeping a text and bytes alive in the resources cache, with few and many chunks that are held
// meanwhile, beside making and destroying them alone (the floor).
#include <benchmark/benchmark.h>
#include <quarn/buffer.h>
#include <quarn/resources_cache.h>

#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "bench.h"

namespace {

constexpr std::string_view kText = "a text that is too long to lie inside its string";
constexpr std::size_t kBytes = 200;

void Alone(benchmark::State& state) {
  const std::vector<std::uint8_t> bytes = tarv::bench::Bytes(kBytes);
  for (auto _ : state) {
    benchmark::DoNotOptimize(std::string(kText));
    benchmark::DoNotOptimize(quarn::Buffer(bytes));
  }
}

void Cached(benchmark::State& state) {
  const std::vector<std::uint8_t> bytes = tarv::bench::Bytes(kBytes);
  quarn::ResourcesCache cache;
  for (std::int64_t i = 0; i < state.range(0); ++i) {
    cache.CreateChunk();
  }
  for (auto _ : state) {
    const std::uint64_t id = cache.CreateChunk();
    QuarnBufferView view;
    benchmark::DoNotOptimize(cache.AppendStr(id, kText));
    benchmark::DoNotOptimize(cache.AppendBuffer(id, quarn::Buffer(bytes), &view, sizeof(view)));
    cache.RemoveChunk(id);
  }
}

}  // namespace

int main(int argc, char** argv) {
  benchmark::RegisterBenchmark("text and bytes alone", &Alone);
  benchmark::RegisterBenchmark("in the cache, chunks held:", &Cached)
      ->Arg(0)
      ->Arg(10)
      ->Arg(1000)
      ->Arg(10000);
  return tarv::bench::RunBenchmarks(argc, argv);
}
