#include <cw/application_wrapper.h>
#include <quarn/library_api.h>
#include <quarn/logger.h>
#include <quarn/slot.h>

#include <array>
#include <utility>

#include "c_text.h"
#include "plugin_context.h"

namespace cw {
namespace {

// By the permission's value, from 1 on.
constexpr std::array<std::string_view, 30> kPermissionNames = {
    "Audio",
    "AuthService",
    "Bluetooth",
    "Call",
    "Camera",
    "DeviceInfo",
    "Documents",
    "Downloads",
    "Internet",
    "Location",
    "ManagedConfiguration",
    "Market",
    "MediaIndexing",
    "Microphone",
    "Music",
    "NFC",
    "Pictures",
    "Printing",
    "PublicDir",
    "PushNotifications",
    "RemovableMedia",
    "ScreenCapture",
    "SecureStorage",
    "Serial",
    "Sensors",
    "UserdataWiper",
    "UserDirs",
    "Videos",
    "WebView",
    "Contacts",
};
static_assert(kPermissionNames.size() == static_cast<std::size_t>(Permission::Contacts));

constexpr const char* kNoText = nullptr;

}  // namespace

std::string_view PermissionToStringView(Permission permission) {
  const auto index = static_cast<std::int64_t>(permission) - 1;
  if (index < 0 || index >= static_cast<std::int64_t>(kPermissionNames.size())) {
    return {};
  }
  return kPermissionNames[static_cast<std::size_t>(index)];
}

std::shared_ptr<ApplicationWrapper> ApplicationWrapper::Create(
    FlutterVeltraPluginContext* context) {
  const auto table =
      internal::LoadTable(context, &FlutterVeltraPluginContext::ApplicationProcTableLoad);
  return table ? std::make_shared<ApplicationWrapper>(PrivateTag(), internal::GetEngine(context),
                                                      *table)
               : nullptr;
}

void ApplicationWrapper::EnqueueTask(std::function<void()> task, unsigned int param) const {
  const auto enqueue = quarn::ReadField(&table_, &FlutterVeltraApplicationProcTable::EnqueueTask);
  if (enqueue == nullptr || !task) {
    return;
  }
  const auto slot = quarn::CreateSlot<FlutterVeltraSlot>(std::move(task));
  enqueue(engine_, &slot, param);
}

void ApplicationWrapper::Invoke(const std::function<void()>& task, unsigned int param) {
  EnqueueTask(task, param);
}

bool ApplicationWrapper::HasPermission(std::string_view name) const {
  const auto has_permission =
      quarn::ReadField(&table_, &FlutterVeltraApplicationProcTable::HasPermission);
  if (has_permission == nullptr) {
    QUARN_LOG_ERROR() << "Current embedder version does not support HasPermission() method. "
                      << "Please, update flutter cache by removing `flutter/bin/cache` directory "
                      << "and running `flutter precache` command.";
    return false;
  }
  if (name.empty()) {
    QUARN_LOG_ERROR() << "Contract violation: permission string cannot be empty.";
    return false;
  }
  return internal::ReachesCWhole("permission", name) &&
         has_permission(engine_, std::string(name).c_str());
}

bool ApplicationWrapper::HasPermission(Permission permission) const {
  return HasPermission(PermissionToStringView(permission));
}

std::string ApplicationWrapper::GetOSVersion() const {
  return internal::ToString(
      quarn::CallEntry(QUARN_FIND_ENTRY(table_, GetOSVersion), kNoText, engine_));
}

std::string ApplicationWrapper::GetEmbedderVersion() const {
  return internal::ToString(
      quarn::CallEntry(QUARN_FIND_ENTRY(table_, GetEmbedderVersion), kNoText, engine_));
}

void ApplicationWrapper::Exit(int exit_code) const {
  quarn::CallEntry(QUARN_FIND_ENTRY(table_, Exit), engine_, exit_code);
}

bool ApplicationWrapper::CreateMainWindow(const std::string& entry_point,
                                          const EncodableValue& payload) const {
  const auto create = QUARN_FIND_ENTRY(table_, CreateMainWindow);
  if (create == nullptr || !internal::ReachesCWhole("entry point", entry_point)) {
    return false;
  }
  const quarn::Buffer bytes = payload.Serialize();
  return create(engine_, entry_point.empty() ? nullptr : entry_point.c_str(), bytes.GetData(),
                bytes.GetSize());
}

std::string ApplicationWrapper::GetApplicationInfo(InfoType type) const {
  return internal::ToString(quarn::CallEntry(QUARN_FIND_ENTRY(table_, GetApplicationInfo), kNoText,
                                             engine_, static_cast<std::int32_t>(type)));
}

std::filesystem::path ApplicationWrapper::GetPath(DirectoryType type) const {
  return internal::ToString(quarn::CallEntry(QUARN_FIND_ENTRY(table_, GetPath), kNoText, engine_,
                                             static_cast<std::int32_t>(type)));
}

std::filesystem::path ApplicationWrapper::GetLibraryPath(std::string_view name) const {
  const auto get_path = QUARN_FIND_ENTRY(table_, GetLibraryPath);
  if (get_path == nullptr || !internal::ReachesCWhole("library's name", name)) {
    return {};
  }
  return internal::ToString(get_path(engine_, std::string(name).c_str()));
}

std::vector<std::string> ApplicationWrapper::GetDartEntryPointArgs() const {
  FlutterVeltraStringList list{sizeof(FlutterVeltraStringList), nullptr, 0};
  if (!quarn::CallEntry(QUARN_FIND_ENTRY(table_, GetDartEntryPointArgs), false, engine_, &list)) {
    return {};
  }
  const auto* const strings = quarn::ReadField(&list, &FlutterVeltraStringList::strings);
  const std::size_t count = quarn::ReadField(&list, &FlutterVeltraStringList::count);
  return strings == nullptr ? std::vector<std::string>()
                            : std::vector<std::string>(strings, strings + count);
}

}  // namespace cw
