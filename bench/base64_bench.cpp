// Base64 beside memcpy (the floor, over the bytes of the data) and OpenSSL. Every rate is in bytes
// of the data, not of its text.
#include <benchmark/benchmark.h>
#include <quarn/buffer.h>
#include <quarn/internal/base64.h>

#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

#include "../quarn/src/base64_coders.h"
#include "bench.h"
#ifdef TARV_BENCH_OPENSSL
#include <openssl/evp.h>
#endif

namespace {

namespace base64 = quarn::base64;
using tarv::bench::Bytes;

// The data of one size, its text, and room for either.
struct Sample {
  explicit Sample(const benchmark::State& state)
      : data(Bytes(static_cast<std::size_t>(state.range(0)))),
        text(base64::EncodeToText(data.data(), data.size())),
        text_out(text.size() + 1),
        data_out(data.size() + 3) {}

  std::vector<std::uint8_t> data;
  std::string text;
  std::vector<char> text_out;
  std::vector<std::uint8_t> data_out;
};

// Runs `step` on a sample, and counts the bytes of its data.
template <class Step>
void Run(benchmark::State& state, const Step& step) {
  Sample sample(state);
  for (auto _ : state) {
    step(sample);
    benchmark::ClobberMemory();
  }
  state.SetBytesProcessed(state.iterations() * state.range(0));
}

void Copy(benchmark::State& state) {
  Run(state, [](Sample& sample) {
    std::memcpy(sample.data_out.data(), sample.data.data(), sample.data.size());
  });
}

void EncodeBy(benchmark::State& state, const base64::Coder& coder) {
  Run(state, [&coder](Sample& sample) {
    base64::EncodeBy(coder, sample.data.data(), sample.data.size(), sample.text_out.data());
  });
}

void DecodeBy(benchmark::State& state, const base64::Coder& coder) {
  Run(state, [&coder](Sample& sample) {
    benchmark::DoNotOptimize(
        base64::DecodeBy(coder, sample.text.data(), sample.text.size(), sample.data_out.data()));
  });
}

void BufferToBase64(benchmark::State& state) {
  const quarn::Buffer buffer(Sample(state).data);
  Run(state, [&buffer](Sample&) { benchmark::DoNotOptimize(buffer.ToBase64()); });
}

void BufferFromBase64(benchmark::State& state) {
  Run(state,
      [](Sample& sample) { benchmark::DoNotOptimize(quarn::Buffer::FromBase64(sample.text)); });
}

#ifdef TARV_BENCH_OPENSSL
void OpenSslEncode(benchmark::State& state) {
  Run(state, [](Sample& sample) {
    EVP_EncodeBlock(reinterpret_cast<unsigned char*>(sample.text_out.data()), sample.data.data(),
                    static_cast<int>(sample.data.size()));
  });
}

void OpenSslDecode(benchmark::State& state) {
  Run(state, [](Sample& sample) {
    EVP_DecodeBlock(sample.data_out.data(),
                    reinterpret_cast<const unsigned char*>(sample.text.data()),
                    static_cast<int>(sample.text.size()));
  });
}
#endif

void Register(const std::string& name, void (*function)(benchmark::State&)) {
  benchmark::RegisterBenchmark(name.c_str(), function)->Arg(64)->Arg(4096)->Arg(1 << 20);
}

void Register(const std::string& name, void (*function)(benchmark::State&, const base64::Coder&),
              const base64::Coder& coder) {
  benchmark::RegisterBenchmark((name + coder.name).c_str(), function, coder)
      ->Arg(64)
      ->Arg(4096)
      ->Arg(1 << 20);
}

}  // namespace

int main(int argc, char** argv) {
  Register("Copy", &Copy);
  for (const base64::Coder& coder : base64::GetCoders()) {
    if (coder.is_supported()) {
      Register("EncodeBy", &EncodeBy, coder);
      Register("DecodeBy", &DecodeBy, coder);
    }
  }
  Register("BufferToBase64", &BufferToBase64);
  Register("BufferFromBase64", &BufferFromBase64);
#ifdef TARV_BENCH_OPENSSL
  Register("OpenSslEncode", &OpenSslEncode);
  Register("OpenSslDecode", &OpenSslDecode);
#endif
  return tarv::bench::RunBenchmarks(argc, argv);
}
