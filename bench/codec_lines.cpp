#include "codec_lines.h"

#include <benchmark/benchmark.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <vector>

#include "roundtrip/measure.h"

namespace tarv::bench {
namespace {

using Work = std::function<void()>;

std::uint64_t NsOf(const Work& work, std::size_t calls) {
  const std::uint64_t began = ::bench::NowNs();
  for (std::size_t i = 0; i < calls; ++i) {
    work();
  }
  return ::bench::NowNs() - began;
}

// The median of batches that are long enough for the clock.
double NsPerCall(const Work& work) {
  constexpr std::uint64_t kBatchNs = 1'000'000;
  constexpr std::uint64_t kAllNs = 30 * kBatchNs;
  constexpr std::size_t kFewestBatches = 3;
  work();  // the caches and the allocator know it
  std::size_t calls = 1;
  while (NsOf(work, calls) < kBatchNs) {
    calls *= 2;
  }
  std::vector<std::uint64_t> batches;
  for (std::uint64_t all = 0; batches.size() < kFewestBatches || all < kAllNs;) {
    all += batches.emplace_back(NsOf(work, calls));
  }
  const auto median = batches.begin() + static_cast<std::ptrdiff_t>(batches.size() / 2);
  std::nth_element(batches.begin(), median, batches.end());
  return static_cast<double>(*median) / static_cast<double>(calls);
}

}  // namespace

void PrintCodecLines(const std::string& kase, const cw::EncodableValue& value) {
  const ::bench::Row row{"D", kase, "tarv, standard codec"};
  const quarn::Buffer bytes = value.Serialize();
  const double encode = NsPerCall([&value] { benchmark::DoNotOptimize(value.Serialize()); });
  const double decode =
      NsPerCall([&bytes] { benchmark::DoNotOptimize(cw::EncodableValue::Deserialize(bytes)); });
  constexpr double kMegabytesPerSecond = 1e3;  // one byte in a nanosecond
  const auto size = static_cast<double>(bytes.GetSize());
  ::bench::Record(row, "encode", encode, "ns");
  ::bench::Record(row, "decode", decode, "ns");
  ::bench::Record(row, "encode rate", size * kMegabytesPerSecond / encode, "MB/s");
  ::bench::Record(row, "decode rate", size * kMegabytesPerSecond / decode, "MB/s");
  ::bench::Record(row, "size", size, "bytes");
}

}  // namespace tarv::bench
