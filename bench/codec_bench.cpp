// The standard codec beside copying the same bytes into new memory (the floor), MessagePack and
// QCborValue. Each encodes from, and decodes to, the dynamic value of its own library, whose
// destruction is part of decoding. With --lines: the standard codec alone, as lines of figures.
#include <benchmark/benchmark.h>
#include <cw/encodable_value.h>

#include <QCborArray>
#include <QCborMap>
#include <QCborValue>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <utility>
#include <vector>

#include "bench.h"
#include "codec_lines.h"
#ifdef TARV_BENCH_MSGPACK
#include <msgpack.hpp>
#endif

namespace {

using cw::EncodableList;
using cw::EncodableMap;
using cw::EncodableValue;

constexpr int kMaps = 10000;
constexpr std::size_t kBulkBytes = std::size_t{8} << 20;
constexpr std::size_t kDoubles = 1000000;

std::string NameOf(int item) {
  std::string digits = std::to_string(item);
  return "item-" + std::string(5 - digits.size(), '0') + digits;
}

std::vector<double> Doubles() {
  std::vector<double> doubles(kDoubles);
  for (std::size_t i = 0; i < kDoubles; ++i) {
    doubles[i] = static_cast<double>(i) + 0.1;
  }
  return doubles;
}

// {"id": 42, "big": 2^40, ...}: a message of every kind.
EncodableValue SmallMap() {
  return EncodableMap{{"id", 42},
                      {"big", std::int64_t{1} << 40},
                      {"ratio", 0.1},
                      {"name", "small value tree"},
                      {"ok", true},
                      {"none", nullptr},
                      {"list", EncodableList{1, 2, 3}},
                      {"blob", tarv::bench::Bytes(16)}};
}

EncodableValue Maps() {
  EncodableList list;
  for (int i = 0; i < kMaps; ++i) {
    list.push_back(EncodableMap{{"id", i}, {"name", NameOf(i)}, {"score", i + 0.1}});
  }
  return EncodableValue(std::move(list));
}

EncodableValue BulkBytes() { return EncodableValue(tarv::bench::Bytes(kBulkBytes)); }
EncodableValue TypedDoubles() { return EncodableValue(Doubles()); }
EncodableValue ListOfDoubles() {
  const std::vector<double> doubles = Doubles();
  return EncodableValue(EncodableList(doubles.begin(), doubles.end()));
}

// Bytes beside doubles, as which the list is given.
EncodableValue Bulk(EncodableValue doubles) {
  EncodableMap map{{"bytes", BulkBytes()}};
  map.emplace("doubles", std::move(doubles));
  return EncodableValue(std::move(map));
}

void PrintLines() {
  tarv::bench::PrintCodecLines("small map", SmallMap());
  tarv::bench::PrintCodecLines("10k maps", Maps());
  tarv::bench::PrintCodecLines("bulk", Bulk(ListOfDoubles()));
  tarv::bench::PrintCodecLines("bulk typed", Bulk(TypedDoubles()));
}

void Copy(benchmark::State& state, EncodableValue (*make)()) {
  const quarn::Buffer bytes = make().Serialize();
  for (auto _ : state) {
    benchmark::DoNotOptimize(quarn::Buffer(bytes));
  }
}

void Encode(benchmark::State& state, EncodableValue (*make)()) {
  const EncodableValue value = make();
  for (auto _ : state) {
    benchmark::DoNotOptimize(value.Serialize());
  }
}

void Decode(benchmark::State& state, EncodableValue (*make)()) {
  const EncodableValue value = make();
  const quarn::Buffer bytes = value.Serialize();
  if (EncodableValue::Deserialize(bytes) != value) {
    state.SkipWithError("the value does not come back");
  }
  for (auto _ : state) {
    benchmark::DoNotOptimize(EncodableValue::Deserialize(bytes));
  }
}

// The tree of nodes that 10,000 maps of three entries are, made and destroyed without any decoding:
// what decoding them cannot do without.
void BareTrees(benchmark::State& state) {
  for (auto _ : state) {
    EncodableList list;
    list.reserve(kMaps);
    for (int i = 0; i < kMaps; ++i) {
      auto& map = std::get<EncodableMap>(list.emplace_back(EncodableMap()));
      for (int key = 0; key < 3; ++key) {
        map.emplace_hint(map.end(), key, key);
      }
    }
    benchmark::DoNotOptimize(list);
  }
}

// The same value in the other libraries' own terms.

QCborValue CborOf(const EncodableValue& value) {
  switch (value.index()) {
    case 1:
      return std::get<bool>(value);
    case 2:
      return std::get<std::int32_t>(value);
    case 3:
      return qint64{std::get<std::int64_t>(value)};
    case 4:
      return std::get<double>(value);
    case 5:
      return QString::fromStdString(std::get<std::string>(value));
    case 6: {
      const auto& bytes = std::get<std::vector<std::uint8_t>>(value);
      return QByteArray(reinterpret_cast<const char*>(bytes.data()),
                        static_cast<int>(bytes.size()));
    }
    case 10: {
      QCborArray array;
      for (const EncodableValue& item : *value.AsList()) {
        array.append(CborOf(item));
      }
      return array;
    }
    case 11: {
      QCborMap map;
      for (const auto& [key, item] : *value.AsMap()) {
        map.insert(CborOf(key), CborOf(item));
      }
      return map;
    }
    default:
      return nullptr;
  }
}

void CborEncode(benchmark::State& state, EncodableValue (*make)()) {
  QCborValue value = CborOf(make());
  for (auto _ : state) {
    benchmark::DoNotOptimize(value.toCbor());
  }
}

void CborDecode(benchmark::State& state, EncodableValue (*make)()) {
  const QByteArray bytes = CborOf(make()).toCbor();
  for (auto _ : state) {
    benchmark::DoNotOptimize(QCborValue::fromCbor(bytes));
  }
}

#ifdef TARV_BENCH_MSGPACK
void PackInto(const EncodableValue& value, msgpack::packer<msgpack::sbuffer>& packer) {
  if (const EncodableList* list = value.AsList()) {
    packer.pack_array(static_cast<std::uint32_t>(list->size()));
    for (const EncodableValue& item : *list) {
      PackInto(item, packer);
    }
  } else if (const EncodableMap* map = value.AsMap()) {
    packer.pack_map(static_cast<std::uint32_t>(map->size()));
    for (const auto& [key, item] : *map) {
      PackInto(key, packer);
      PackInto(item, packer);
    }
  } else if (const std::string* text = value.AsString()) {
    packer.pack(*text);
  } else if (const auto* bytes = std::get_if<std::vector<std::uint8_t>>(&value)) {
    packer.pack(*bytes);
  } else if (const auto* number = std::get_if<double>(&value)) {
    packer.pack(*number);
  } else if (const auto integer = value.AsInt64()) {
    packer.pack(*integer);
  } else if (const auto flag = value.AsBool()) {
    packer.pack(*flag);
  } else {
    packer.pack_nil();
  }
}

msgpack::sbuffer PackedOf(const EncodableValue& value) {
  msgpack::sbuffer bytes;
  msgpack::packer<msgpack::sbuffer> packer(bytes);
  PackInto(value, packer);
  return bytes;
}

void MsgpackEncode(benchmark::State& state, EncodableValue (*make)()) {
  const msgpack::sbuffer packed = PackedOf(make());
  const msgpack::object_handle value = msgpack::unpack(packed.data(), packed.size());
  for (auto _ : state) {
    msgpack::sbuffer bytes;
    msgpack::pack(bytes, value.get());
    benchmark::DoNotOptimize(bytes);
  }
}

void MsgpackDecode(benchmark::State& state, EncodableValue (*make)()) {
  const msgpack::sbuffer packed = PackedOf(make());
  for (auto _ : state) {
    benchmark::DoNotOptimize(msgpack::unpack(packed.data(), packed.size()));
  }
}
#endif

void RegisterPeers(const std::string& name, EncodableValue (*make)()) {
  benchmark::RegisterBenchmark((name + "/encode QCborValue").c_str(), &CborEncode, make);
  benchmark::RegisterBenchmark((name + "/decode QCborValue").c_str(), &CborDecode, make);
#ifdef TARV_BENCH_MSGPACK
  benchmark::RegisterBenchmark((name + "/encode MessagePack").c_str(), &MsgpackEncode, make);
  benchmark::RegisterBenchmark((name + "/decode MessagePack").c_str(), &MsgpackDecode, make);
#endif
}

void Register(const std::string& name, EncodableValue (*make)()) {
  benchmark::RegisterBenchmark((name + "/copy").c_str(), &Copy, make);
  benchmark::RegisterBenchmark((name + "/encode").c_str(), &Encode, make);
  benchmark::RegisterBenchmark((name + "/decode").c_str(), &Decode, make);
}

}  // namespace

int main(int argc, char** argv) {
  if (argc == 2 && std::string(argv[1]) == "--lines") {
    PrintLines();
    return 0;
  }
  Register("small map", &SmallMap);
  RegisterPeers("small map", &SmallMap);
  Register("10,000 maps", &Maps);
  benchmark::RegisterBenchmark("10,000 maps/bare trees", &BareTrees);
  RegisterPeers("10,000 maps", &Maps);
  Register("list of a million doubles", &ListOfDoubles);
  RegisterPeers("list of a million doubles", &ListOfDoubles);
  Register("typed list of a million doubles", &TypedDoubles);
  Register("8 MiB of bytes", &BulkBytes);
  RegisterPeers("8 MiB of bytes", &BulkBytes);
  return tarv::bench::RunBenchmarks(argc, argv);
}
