// veltra::host::Application: what plug-ins are told about their application, and ask of it.
#ifndef VELTRA_HOST_APPLICATION_H
#define VELTRA_HOST_APPLICATION_H

#include <cw/encodable_value.h>
#include <flutter_veltra/application.h>
#include <veltra/host/engine_options.h>
#include <veltra/host/export.h>

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace veltra::host {

class PlatformThread;

// A window that a plug-in asked for.
struct Window {
  std::string entry_point;
  cw::EncodableValue payload;
};

// Belongs to the platform thread, but for EnqueueTask.
class VELTRA_HOST_EXPORT Application {
 public:
  Application(const EngineOptions& options, std::shared_ptr<PlatformThread> thread);

  void SetPermission(const std::string& name, bool granted);
  // The code with which a plug-in asked to exit; empty while none did.
  std::optional<int> GetExitCode() const { return exit_code_; }
  // The main window that a plug-in opened.
  const std::optional<Window>& GetMainWindow() const { return main_window_; }

  // The plug-ins' side: what the entries of these names do.
  void EnqueueTask(const FlutterVeltraSlot* task, unsigned int param);
  bool HasPermission(const char* name);
  const char* GetOSVersion();
  const char* GetEmbedderVersion();
  void Exit(int exit_code);
  bool CreateMainWindow(const char* entry_point, const std::uint8_t* payload,
                        std::size_t payload_size);
  const char* GetApplicationInfo(std::int32_t type);
  const char* GetPath(std::int32_t type);
  const char* GetLibraryPath(const char* name);
  bool GetDartEntryPointArgs(FlutterVeltraStringList* list);

 private:
  std::shared_ptr<PlatformThread> thread_;
  std::set<std::string> permissions_;
  std::string os_version_;
  std::string embedder_version_;
  std::filesystem::path library_folder_;
  std::string library_path_;
  std::map<std::int32_t, std::string> info_;
  std::map<std::int32_t, std::string> paths_;
  std::vector<std::string> arguments_;
  std::vector<const char*> argument_pointers_;
  std::optional<int> exit_code_;
  std::optional<Window> main_window_;
};

}  // namespace veltra::host

#endif  // VELTRA_HOST_APPLICATION_H
