// Emitting to one and to ten listeners, beside plain calls of functions (the floor) and
// boost::signals2.
#include <benchmark/benchmark.h>
#include <quarn/listener.h>
#include <quarn/signal.h>

#include <functional>
#include <memory>
#include <thread>
#include <vector>

#include "bench.h"
#ifdef TARV_BENCH_BOOST
#include <boost/signals2.hpp>
#endif

namespace {

int sum = 0;

void Take(int number) { benchmark::DoNotOptimize(sum += number); }

void PlainCalls(benchmark::State& state) {
  const std::vector<std::function<void(int)>> functions(static_cast<std::size_t>(state.range(0)),
                                                        &Take);
  for (auto _ : state) {
    for (const auto& function : functions) {
      function(1);
    }
  }
}

void Signal(benchmark::State& state) {
  quarn::OwnedSignal<int> signal;
  for (std::int64_t i = 0; i < state.range(0); ++i) {
    signal.Subscribe(std::make_shared<quarn::CppStyleListener<int>>(&Take));
  }
  for (auto _ : state) {
    signal.Emit(1);
  }
}

#ifdef TARV_BENCH_BOOST
void BoostSignal(benchmark::State& state) {
  boost::signals2::signal<void(int)> signal;
  for (std::int64_t i = 0; i < state.range(0); ++i) {
    signal.connect(&Take);
  }
  for (auto _ : state) {
    signal(1);
  }
}
#endif

}  // namespace

int main(int argc, char** argv) {
  // The library leaves atomic instructions out as long as a process has one thread.
  std::thread([] {}).join();
  benchmark::RegisterBenchmark("plain calls", &PlainCalls)->Arg(1)->Arg(10);
  benchmark::RegisterBenchmark("signal", &Signal)->Arg(1)->Arg(10);
#ifdef TARV_BENCH_BOOST
  benchmark::RegisterBenchmark("boost::signals2", &BoostSignal)->Arg(1)->Arg(10);
#endif
  return tarv::bench::RunBenchmarks(argc, argv);
}
