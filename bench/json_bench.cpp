// Values to and from Qt's JSON, beside what Qt takes to write and to parse the text of the same
// JSON: a conversion has both of its forms in memory and should take less.
#include <benchmark/benchmark.h>
#include <cw/encodable_value.h>
#include <vorpc/qt/utils.h>

#include <QJsonDocument>
#include <QJsonObject>
#include <string>

#include "bench.h"

namespace {

using cw::EncodableList;
using cw::EncodableMap;
using cw::EncodableValue;

constexpr int kEntries = 1000;

EncodableMap SmallMap() {
  return EncodableMap{{"id", 42},   {"ratio", 0.1},    {"name", "small value tree"},
                      {"ok", true}, {"none", nullptr}, {"list", EncodableList{1, 2, 3}}};
}

// One of several kinds, or an array of them would become a typed list.
EncodableValue EntryOf(int entry) {
  switch (entry % 4) {
    case 0:
      return entry;
    case 1:
      return entry + 0.5;
    case 2:
      return "text of entry " + std::to_string(entry);
    default:
      return entry % 8 == 3;
  }
}

EncodableMap LargeList() {
  EncodableList list;
  for (int i = 0; i < kEntries; ++i) {
    list.push_back(EntryOf(i));
  }
  return EncodableMap{{"list", std::move(list)}};
}

EncodableMap LargeMap() {
  EncodableMap map;
  for (int i = 0; i < kEntries; ++i) {
    map.emplace("key-" + std::to_string(i), EntryOf(i));
  }
  return map;
}

QJsonObject JsonOf(const EncodableMap& map) {
  QJsonObject object;
  vorpc::qt::EncodableMapToJsonObject(map, object);
  return object;
}

QByteArray TextOf(const EncodableMap& map) {
  return QJsonDocument(JsonOf(map)).toJson(QJsonDocument::Compact);
}

void ToJson(benchmark::State& state, EncodableMap (*make)()) {
  const EncodableMap map = make();
  for (auto _ : state) {
    benchmark::DoNotOptimize(JsonOf(map));
  }
}

void ToJsonText(benchmark::State& state, EncodableMap (*make)()) {
  const EncodableMap map = make();
  for (auto _ : state) {
    benchmark::DoNotOptimize(vorpc::qt::EncodableMapToJsonString(map));
  }
}

void QtWrites(benchmark::State& state, EncodableMap (*make)()) {
  const QJsonDocument document(JsonOf(make()));
  for (auto _ : state) {
    benchmark::DoNotOptimize(document.toJson(QJsonDocument::Compact));
  }
}

void FromJson(benchmark::State& state, EncodableMap (*make)()) {
  const EncodableMap map = make();
  const QJsonObject object = JsonOf(map);
  EncodableMap back;
  vorpc::qt::JsonObjectToEncodableMap(object, back);
  if (back.size() != map.size()) {
    state.SkipWithError("the map does not come back");
  }
  for (auto _ : state) {
    EncodableMap out;
    vorpc::qt::JsonObjectToEncodableMap(object, out);
    benchmark::DoNotOptimize(out);
  }
}

void QtParses(benchmark::State& state, EncodableMap (*make)()) {
  const QByteArray text = TextOf(make());
  for (auto _ : state) {
    benchmark::DoNotOptimize(QJsonDocument::fromJson(text));
  }
}

void Register(const std::string& name, EncodableMap (*make)()) {
  benchmark::RegisterBenchmark((name + "/to JSON").c_str(), &ToJson, make);
  benchmark::RegisterBenchmark((name + "/to JSON text").c_str(), &ToJsonText, make);
  benchmark::RegisterBenchmark((name + "/QJsonDocument::toJson").c_str(), &QtWrites, make);
  benchmark::RegisterBenchmark((name + "/from JSON").c_str(), &FromJson, make);
  benchmark::RegisterBenchmark((name + "/QJsonDocument::fromJson").c_str(), &QtParses, make);
}

}  // namespace

int main(int argc, char** argv) {
  Register("small map", &SmallMap);
  Register("list of 1,000", &LargeList);
  Register("map of 1,000", &LargeMap);
  return tarv::bench::RunBenchmarks(argc, argv);
}
