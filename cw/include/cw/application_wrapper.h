// cw::ApplicationWrapper: the application that a plug-in runs in.
#ifndef CW_APPLICATION_WRAPPER_H
#define CW_APPLICATION_WRAPPER_H

#include <cw/encodable_value.h>
#include <flutter_veltra/application.h>
#include <flutter_veltra/plugin_context.h>
#include <quarn/dispatcher.h>
#include <quarn/export.h>

#include <cstdint>
#include <filesystem>
#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

namespace cw {

// The permissions that an application may have. The numbers are fixed.
enum class Permission : std::int32_t {
  Audio = 1,
  AuthService = 2,
  Bluetooth = 3,
  Call = 4,
  Camera = 5,
  DeviceInfo = 6,
  Documents = 7,
  Downloads = 8,
  Internet = 9,
  Location = 10,
  ManagedConfiguration = 11,
  Market = 12,
  MediaIndexing = 13,
  Microphone = 14,
  Music = 15,
  NFC = 16,
  Pictures = 17,
  Printing = 18,
  PublicDir = 19,
  PushNotifications = 20,
  RemovableMedia = 21,
  ScreenCapture = 22,
  SecureStorage = 23,
  Serial = 24,
  Sensors = 25,
  UserdataWiper = 26,
  UserDirs = 27,
  Videos = 28,
  WebView = 29,
  Contacts = 30,
};

// The permission's name ("Camera"); empty for a value that is none of the above.
TARV_EXPORT std::string_view PermissionToStringView(Permission permission);

// The facts about the application that can be asked for; the values of FlutterVeltraInfoType.
enum class InfoType : std::int32_t {
  Id = FLUTTER_VELTRA_INFO_ID,
  Name = FLUTTER_VELTRA_INFO_NAME,
  Version = FLUTTER_VELTRA_INFO_VERSION,
  Organization = FLUTTER_VELTRA_INFO_ORGANIZATION,
  Locale = FLUTTER_VELTRA_INFO_LOCALE,
};

// The folders that an application knows; the values of FlutterVeltraDirectoryType, which says what
// each is for.
enum class DirectoryType : std::int32_t {
  Assets = FLUTTER_VELTRA_DIRECTORY_ASSETS,
  Data = FLUTTER_VELTRA_DIRECTORY_DATA,
  Cache = FLUTTER_VELTRA_DIRECTORY_CACHE,
  Config = FLUTTER_VELTRA_DIRECTORY_CONFIG,
  Temporary = FLUTTER_VELTRA_DIRECTORY_TEMPORARY,
  Documents = FLUTTER_VELTRA_DIRECTORY_DOCUMENTS,
  Downloads = FLUTTER_VELTRA_DIRECTORY_DOWNLOADS,
  Music = FLUTTER_VELTRA_DIRECTORY_MUSIC,
  Pictures = FLUTTER_VELTRA_DIRECTORY_PICTURES,
  Videos = FLUTTER_VELTRA_DIRECTORY_VIDEOS,
};

// Belongs to the platform thread but for EnqueueTask and Invoke. Except for these two, an operation
// that the embedder does not provide logs that and returns an empty result, as one does for what
// the embedder does not know.
class TARV_EXPORT ApplicationWrapper : public quarn::IDispatcher {
  struct PrivateTag {
    explicit PrivateTag() = default;
  };

 public:
  // Empty when the context is null, too small or without an engine, and when the embedder does not
  // hand out its application table.
  static std::shared_ptr<ApplicationWrapper> Create(FlutterVeltraPluginContext* context);

  ApplicationWrapper(PrivateTag, _FlutterVeltraEngine* engine,
                     const FlutterVeltraApplicationProcTable& table)
      : engine_(engine), table_(table) {}
  ApplicationWrapper(const ApplicationWrapper&) = delete;
  ApplicationWrapper& operator=(const ApplicationWrapper&) = delete;

  _FlutterVeltraEngine* GetRef() const { return engine_; }

  // Has the platform thread run the task once; `param` is the embedder's (its application.h says
  // what it means). The task is destroyed unrun when the engine ends first. Does nothing for an
  // empty task and where the embedder runs no tasks. Any thread.
  void EnqueueTask(std::function<void()> task, unsigned int param) const;

  // The same, for whoever is given a dispatcher. Any thread.
  void Invoke(const std::function<void()>& task, unsigned int param) override;

  // Whether the user granted the permission. False, after a log line, for an empty name and for one
  // with a NUL inside.
  bool HasPermission(std::string_view name) const;
  bool HasPermission(Permission permission) const;

  std::string GetOSVersion() const;
  std::string GetEmbedderVersion() const;

  // Ends the application with this exit code once control returns to its event loop.
  void Exit(int exit_code) const;

  // Opens the main window of an engine that has none: runs the Dart function `entry_point` ("main"
  // when empty) and hands it `payload`. False when it could not be opened. Throws std::length_error
  // for a payload that nests deeper than kMaxNesting.
  bool CreateMainWindow(const std::string& entry_point = "",
                        const EncodableValue& payload = {}) const;

  std::string GetApplicationInfo(InfoType type) const;
  std::filesystem::path GetPath(DirectoryType type) const;

  // Where the application's library of this file name is; for an empty name, the folder of its
  // libraries. Empty, after a log line, for a name with a NUL inside.
  std::filesystem::path GetLibraryPath(std::string_view name = {}) const;

  // The arguments that Dart's entry point was called with.
  std::vector<std::string> GetDartEntryPointArgs() const;

 private:
  _FlutterVeltraEngine* engine_;
  FlutterVeltraApplicationProcTable table_;
};

}  // namespace cw

#endif  // CW_APPLICATION_WRAPPER_H
