// veltra::host::EngineOptions: what an engine of the workstation embedder reports and allows.
#ifndef VELTRA_HOST_ENGINE_OPTIONS_H
#define VELTRA_HOST_ENGINE_OPTIONS_H

#include <flutter_veltra/plugin_context.h>

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <map>
#include <set>
#include <string>
#include <vector>

namespace veltra::host {

// How many bytes of each structure the embedder knows: less, and it is an older one.
struct TableSizes {
  std::size_t context = sizeof(FlutterVeltraPluginContext);
  std::size_t application = sizeof(FlutterVeltraApplicationProcTable);
  std::size_t messenger = sizeof(FlutterVeltraMessengerProcTable);
  std::size_t view = sizeof(FlutterVeltraViewProcTable);
  std::size_t texture = sizeof(FlutterVeltraTextureProcTable);
};

struct EngineOptions {
  // The names of the permissions that the user granted: "Camera".
  std::set<std::string> permissions;
  // The folder of the application's libraries. Empty: "../lib" seen from the running executable.
  std::filesystem::path library_path;
  // The arguments of Dart's entry point.
  std::vector<std::string> entry_point_args;

  // These replace the workstation's own answers, by FlutterVeltraDirectoryType and
  // FlutterVeltraInfoType.
  std::map<std::int32_t, std::filesystem::path> directories;
  std::map<std::int32_t, std::string> application_info;
  std::string os_version;
  std::string embedder_version;

  // For trying a plug-in against other embedders: older ones, and ones that leave entries of the
  // context and of the tables null. Entries by their names: "HasPermission".
  TableSizes table_sizes;
  std::set<std::string> missing_entries;
};

}  // namespace veltra::host

#endif  // VELTRA_HOST_ENGINE_OPTIONS_H
