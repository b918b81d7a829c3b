// A request to its text and back: the road that every message takes twice. Beside a small one what
// the codec and Base64 take of that, so that the rest is the message's own. Each line counts the
// allocations of one round.
#include <benchmark/benchmark.h>
#include <cw/encodable_value.h>
#include <quarn/buffer.h>
#include <vorpc/message.h>

#include <atomic>
#include <cstddef>
#include <cstdlib>
#include <new>
#include <string>

#include "bench.h"

namespace {

std::atomic<std::size_t> allocations{0};

}  // namespace

// Not inlined, or the compiler takes one half for the partner of the standard's other half.
[[gnu::noinline]] void* operator new(std::size_t size) {
  allocations.fetch_add(1, std::memory_order_relaxed);
  if (void* const memory = std::malloc(size == 0 ? 1 : size)) {
    return memory;
  }
  throw std::bad_alloc();
}

[[gnu::noinline]] void operator delete(void* memory) noexcept { std::free(memory); }
[[gnu::noinline]] void operator delete(void* memory, std::size_t /*size*/) noexcept {
  std::free(memory);
}

namespace {

using vorpc::Message;

Message SmallRequest() {
  return Message::CreateRequest(Message::ID("id417_12"), "files/status",
                                cw::EncodableMap{{"n", 1}});
}

// Runs `round` as often as the benchmark asks.
template <class Round>
void Measure(benchmark::State& state, const Round& round) {
  const std::size_t before = allocations;
  for (auto _ : state) {
    round();
  }
  state.counters["allocations"] = benchmark::Counter(static_cast<double>(allocations - before),
                                                     benchmark::Counter::kAvgIterations);
}

void MessageToText(benchmark::State& state) {
  const Message request = SmallRequest();
  Measure(state, [&request] { benchmark::DoNotOptimize(request.ToBase64()); });
}
BENCHMARK(MessageToText);

void MessageFromText(benchmark::State& state) {
  const std::string text = SmallRequest().ToBase64();
  Measure(state, [&text] { benchmark::DoNotOptimize(Message::FromBase64(text)); });
}
BENCHMARK(MessageFromText);

void BufferToText(benchmark::State& state) {
  const quarn::Buffer buffer = SmallRequest().ToEncodable().Serialize();
  Measure(state, [&buffer] { benchmark::DoNotOptimize(buffer.ToBase64()); });
}
BENCHMARK(BufferToText);

void BufferFromText(benchmark::State& state) {
  const std::string text = SmallRequest().ToBase64();
  Measure(state, [&text] { benchmark::DoNotOptimize(quarn::Buffer::FromBase64(text)); });
}
BENCHMARK(BufferFromText);

void MapFromText(benchmark::State& state) {
  const std::string text = SmallRequest().ToBase64();
  Measure(state, [&text] {
    benchmark::DoNotOptimize(cw::EncodableValue::Deserialize(quarn::Buffer::FromBase64(text)));
  });
}
BENCHMARK(MapFromText);

// A large payload, in memory that is new each time. Beside it a copy of the text, the floor.

Message LargeRequest() {
  return Message::CreateRequest(
      Message::ID("id417_12"), "files/store",
      cw::EncodableMap{{"data", tarv::bench::Bytes(std::size_t{16} << 20)}, {"name", "image"}});
}

void LargeMessageToText(benchmark::State& state) {
  const Message request = LargeRequest();
  Measure(state, [&request] { benchmark::DoNotOptimize(request.ToBase64()); });
}
BENCHMARK(LargeMessageToText)->Unit(benchmark::kMicrosecond);

void LargeMessageFromText(benchmark::State& state) {
  const std::string text = LargeRequest().ToBase64();
  Measure(state, [&text] { benchmark::DoNotOptimize(Message::FromBase64(text)); });
}
BENCHMARK(LargeMessageFromText)->Unit(benchmark::kMicrosecond);

void CopyLargeText(benchmark::State& state) {
  const std::string text = LargeRequest().ToBase64();
  Measure(state, [&text] { benchmark::DoNotOptimize(std::string(text)); });
}
BENCHMARK(CopyLargeText)->Unit(benchmark::kMicrosecond);

}  // namespace

int main(int argc, char** argv) { return tarv::bench::RunBenchmarks(argc, argv); }
