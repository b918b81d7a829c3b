// Whether the library that is loaded by path is the one that the caller is linked against.
#ifndef END_TO_END_ONE_INSTANCE_H
#define END_TO_END_ONE_INSTANCE_H

#include <cw/encodable_value.h>
#include <quarn/library.h>
#include <quarn/object.h>
#include <tarv/tarv_capi.h>

#include <cstdint>
#include <filesystem>
#include <fstream>
#include <set>
#include <string>

namespace tarv::test {

// The files called libtarv.so that this process has in its memory.
inline cw::EncodableList MappedLibraries() {
  std::ifstream maps("/proc/self/maps");
  std::set<std::string> paths;
  for (std::string line; std::getline(maps, line);) {
    const std::string path = line.substr(std::min(line.find('/'), line.size()));
    if (std::filesystem::path(path).filename() == "libtarv.so") {
      paths.insert(path);
    }
  }
  return {paths.begin(), paths.end()};
}

// Draws an id, has the service of the library in `folder` draw one, and draws again. So many are
// drawn first that a second counter would still be far behind.
inline cw::EncodableValue ExamineLibrary(const std::filesystem::path& folder) {
  using quarn::details::CounterClient;
  constexpr int kHeadStart = 10000;
  for (int i = 0; i < kHeadStart; ++i) {
    CounterClient::GenerateId();
  }
  const auto library = quarn::Library::Create(folder / "libtarv.so");
  auto* const load =
      library->Resolve<QuarnResult(TARVProcTable*, std::size_t)>("TARVProcTableLoad");
  TARVProcTable table{};
  load(&table, sizeof(table));
  const auto before = static_cast<std::int64_t>(CounterClient::GenerateId());
  const auto handle = reinterpret_cast<std::intptr_t>(table.CreateRpcClient(table.Initialize()));
  const auto after = static_cast<std::int64_t>(CounterClient::GenerateId());
  return cw::EncodableMap{{"same entry", load == &TARVProcTableLoad},
                          {"before", before},
                          {"handle", static_cast<std::int64_t>(handle)},
                          {"after", after},
                          {"libraries", MappedLibraries()}};
}

// What ExamineLibrary found speaks for one instance, from the file at `path`.
inline bool IsOneInstance(const cw::EncodableValue& found, const std::string& path) {
  const auto before = found.Find("before")->AsInt64();
  const auto handle = found.Find("handle")->AsInt64();
  const auto after = found.Find("after")->AsInt64();
  return found.Find("same entry")->AsBool() == true && before < handle && handle < after &&
         *found.Find("libraries") == cw::EncodableValue(cw::EncodableList{path});
}

}  // namespace tarv::test

#endif  // END_TO_END_ONE_INSTANCE_H
