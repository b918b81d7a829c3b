#include <cw/view_wrapper.h>
#include <quarn/library_api.h>
#include <quarn/logger.h>
#include <quarn/slot.h>

#include <utility>

#include "c_text.h"
#include "plugin_context.h"

namespace cw {
namespace {

constexpr std::int32_t kNone = 0;

// Keeps what the embedder hands out in place while it is copied.
class ResourcesLock {
 public:
  using Entry = decltype(FlutterVeltraViewProcTable::LockResources);

  ResourcesLock(Entry lock_resources, _FlutterVeltraEngine* engine)
      : locked_(quarn::CallEntry(lock_resources, false, engine, &lock_)) {}
  ~ResourcesLock() {
    const auto release = quarn::ReadField(&lock_, &FlutterVeltraResourcesLock::release);
    if (locked_ && release != nullptr) {
      release(quarn::ReadField(&lock_, &FlutterVeltraResourcesLock::lock_data));
    }
  }
  ResourcesLock(const ResourcesLock&) = delete;
  ResourcesLock& operator=(const ResourcesLock&) = delete;

  bool IsLocked() const { return locked_; }

 private:
  FlutterVeltraResourcesLock lock_{sizeof(FlutterVeltraResourcesLock), nullptr, nullptr};
  bool locked_;
};

Theme CopyTheme(const FlutterVeltraTheme& theme) {
  const auto color = [&theme](std::uint64_t FlutterVeltraTheme::*field) {
    return static_cast<std::uint32_t>(quarn::ReadField(&theme, field));
  };
  return {internal::ToString(quarn::ReadField(&theme, &FlutterVeltraTheme::name)),
          quarn::ReadField(&theme, &FlutterVeltraTheme::is_dark) != 0,
          color(&FlutterVeltraTheme::primary_color),
          color(&FlutterVeltraTheme::secondary_color),
          color(&FlutterVeltraTheme::highlight_color),
          color(&FlutterVeltraTheme::background_color)};
}

using SubscribeEntry = std::uint64_t (*)(_FlutterVeltraEngine*, const FlutterVeltraSlot*);

std::uint64_t Subscribe(SubscribeEntry entry, _FlutterVeltraEngine* engine,
                        std::function<void()> callback) {
  if (entry == nullptr) {
    return 0;
  }
  const auto slot = quarn::CreateSlot<FlutterVeltraSlot>(std::move(callback));
  return entry(engine, &slot);
}

}  // namespace

std::unique_ptr<ViewWrapper> ViewWrapper::Create(FlutterVeltraPluginContext* context) {
  const auto table = internal::LoadTable(context, &FlutterVeltraPluginContext::ViewProcTableLoad);
  return table ? std::make_unique<ViewWrapper>(PrivateTag(), internal::GetEngine(context), *table)
               : nullptr;
}

void* ViewWrapper::GetEglConfig() const {
  return quarn::CallEntry(QUARN_FIND_ENTRY(table_, GetEglConfig), static_cast<void*>(nullptr),
                          engine_);
}

void* ViewWrapper::GetEglDisplay() const {
  return quarn::CallEntry(QUARN_FIND_ENTRY(table_, GetEglDisplay), static_cast<void*>(nullptr),
                          engine_);
}

void* ViewWrapper::GetNativeDisplay() const {
  return quarn::CallEntry(QUARN_FIND_ENTRY(table_, GetNativeDisplay), static_cast<void*>(nullptr),
                          engine_);
}

FlutterVeltraEglGetProcAddress ViewWrapper::GetEglGetProcAddress() const {
  return quarn::CallEntry(QUARN_FIND_ENTRY(table_, GetEglGetProcAddress),
                          FlutterVeltraEglGetProcAddress(nullptr), engine_);
}

void* ViewWrapper::GetEglContext() const {
  return quarn::CallEntry(QUARN_FIND_ENTRY(table_, GetEglContext), static_cast<void*>(nullptr),
                          engine_);
}

void* ViewWrapper::GetEglOffscreenContext() const {
  return quarn::CallEntry(QUARN_FIND_ENTRY(table_, GetEglOffscreenContext),
                          static_cast<void*>(nullptr), engine_);
}

double ViewWrapper::GetDevicePixelRatio() const {
  return quarn::CallEntry(QUARN_FIND_ENTRY(table_, GetDevicePixelRatio), 1.0, engine_);
}

bool ViewWrapper::GetWindowVisibility() const {
  return quarn::CallEntry(QUARN_FIND_ENTRY(table_, GetWindowVisibility), false, engine_);
}

WindowMode ViewWrapper::GetWindowMode() const {
  return static_cast<WindowMode>(
      quarn::CallEntry(QUARN_FIND_ENTRY(table_, GetWindowMode), kNone, engine_));
}

WindowType ViewWrapper::GetWindowType() const {
  return static_cast<WindowType>(
      quarn::CallEntry(QUARN_FIND_ENTRY(table_, GetWindowType), kNone, engine_));
}

std::int32_t ViewWrapper::GetWindowWidth() const {
  return quarn::CallEntry(QUARN_FIND_ENTRY(table_, GetWindowWidth), kNone, engine_);
}

std::int32_t ViewWrapper::GetWindowHeight() const {
  return quarn::CallEntry(QUARN_FIND_ENTRY(table_, GetWindowHeight), kNone, engine_);
}

Orientation ViewWrapper::GetWindowOrientation() const {
  return static_cast<Orientation>(
      quarn::CallEntry(QUARN_FIND_ENTRY(table_, GetWindowOrientation), kNone, engine_));
}

Orientation ViewWrapper::GetDeviceOrientation() const {
  return static_cast<Orientation>(
      quarn::CallEntry(QUARN_FIND_ENTRY(table_, GetDeviceOrientation), kNone, engine_));
}

StatusBarVisibility ViewWrapper::GetStatusBarVisibility() const {
  return static_cast<StatusBarVisibility>(
      quarn::CallEntry(QUARN_FIND_ENTRY(table_, GetStatusBarVisibility), kNone, engine_));
}

void ViewWrapper::SetStatusBarVisibility(StatusBarVisibility visibility) const {
  quarn::CallEntry(QUARN_FIND_ENTRY(table_, SetStatusBarVisibility), engine_,
                   static_cast<std::int32_t>(visibility));
}

bool ViewWrapper::GetKeyboardVisibility() const {
  return quarn::CallEntry(QUARN_FIND_ENTRY(table_, GetKeyboardVisibility), false, engine_);
}

bool ViewWrapper::GetBackgroundVisibility() const {
  return quarn::CallEntry(QUARN_FIND_ENTRY(table_, GetBackgroundVisibility), false, engine_);
}

void ViewWrapper::SetBackgroundVisibility(bool visible) const {
  quarn::CallEntry(QUARN_FIND_ENTRY(table_, SetBackgroundVisibility), engine_, visible);
}

std::optional<Theme> ViewWrapper::GetTheme() const {
  const auto get_theme = QUARN_FIND_ENTRY(table_, GetTheme);
  if (get_theme == nullptr) {
    return std::nullopt;
  }
  const ResourcesLock lock(QUARN_FIND_ENTRY(table_, LockResources), engine_);
  FlutterVeltraTheme theme{};
  theme.size = sizeof(theme);
  if (!lock.IsLocked() || !get_theme(engine_, &theme)) {
    return std::nullopt;
  }
  return CopyTheme(theme);
}

EncodableValue ViewWrapper::GetWindowPayload() const {
  const auto get_payload = QUARN_FIND_ENTRY(table_, GetWindowPayload);
  if (get_payload == nullptr) {
    return {};
  }
  const ResourcesLock lock(QUARN_FIND_ENTRY(table_, LockResources), engine_);
  FlutterVeltraBytes bytes{sizeof(FlutterVeltraBytes), nullptr, 0};
  if (!lock.IsLocked() || !get_payload(engine_, &bytes)) {
    return {};
  }
  return EncodableValue::Deserialize(quarn::ReadField(&bytes, &FlutterVeltraBytes::data),
                                     quarn::ReadField(&bytes, &FlutterVeltraBytes::data_size));
}

void ViewWrapper::MaximizeWindow() const {
  quarn::CallEntry(QUARN_FIND_ENTRY(table_, MaximizeWindow), engine_);
}

void ViewWrapper::MinimizeWindow() const {
  quarn::CallEntry(QUARN_FIND_ENTRY(table_, MinimizeWindow), engine_);
}

void ViewWrapper::Fullscreen() const {
  quarn::CallEntry(QUARN_FIND_ENTRY(table_, Fullscreen), engine_);
}

void ViewWrapper::Activate() const {
  quarn::CallEntry(QUARN_FIND_ENTRY(table_, Activate), engine_);
}

bool ViewWrapper::CreatePopupWindow(const std::string& entry_point,
                                    const EncodableValue& payload) const {
  const auto create = quarn::ReadField(&table_, &FlutterVeltraViewProcTable::CreatePopupWindow);
  if (create == nullptr) {
    QUARN_LOG_ERROR() << "Method \"CreatePopupWindow()\" is not provided by the loaded API.";
    return false;
  }
  if (entry_point.empty()) {
    QUARN_LOG_ERROR() << "Expected not empty entry point";
    return false;
  }
  if (!internal::ReachesCWhole("entry point", entry_point)) {
    return false;
  }
  const quarn::Buffer bytes = payload.Serialize();
  return create(engine_, entry_point.c_str(), bytes.GetData(), bytes.GetSize());
}

void ViewWrapper::CloseWindow(const EncodableValue& payload) const {
  const auto close = QUARN_FIND_ENTRY(table_, CloseWindow);
  if (close == nullptr) {
    return;
  }
  const quarn::Buffer bytes = payload.Serialize();
  close(engine_, bytes.GetData(), bytes.GetSize());
}

std::uint64_t ViewWrapper::WindowVisibilityChangedSubscribe(std::function<void()> callback) const {
  return Subscribe(QUARN_FIND_ENTRY(table_, WindowVisibilityChangedSubscribe), engine_,
                   std::move(callback));
}

void ViewWrapper::WindowVisibilityChangedUnsubscribe(std::uint64_t id) const {
  quarn::CallEntry(QUARN_FIND_ENTRY(table_, WindowVisibilityChangedUnsubscribe), engine_, id);
}

std::uint64_t ViewWrapper::WindowOrientationChangedSubscribe(std::function<void()> callback) const {
  return Subscribe(QUARN_FIND_ENTRY(table_, WindowOrientationChangedSubscribe), engine_,
                   std::move(callback));
}

void ViewWrapper::WindowOrientationChangedUnsubscribe(std::uint64_t id) const {
  quarn::CallEntry(QUARN_FIND_ENTRY(table_, WindowOrientationChangedUnsubscribe), engine_, id);
}

std::uint64_t ViewWrapper::DeviceOrientationChangedSubscribe(std::function<void()> callback) const {
  return Subscribe(QUARN_FIND_ENTRY(table_, DeviceOrientationChangedSubscribe), engine_,
                   std::move(callback));
}

void ViewWrapper::DeviceOrientationChangedUnsubscribe(std::uint64_t id) const {
  quarn::CallEntry(QUARN_FIND_ENTRY(table_, DeviceOrientationChangedUnsubscribe), engine_, id);
}

std::uint64_t ViewWrapper::KeyboardVisibilityChangedSubscribe(
    std::function<void()> callback) const {
  return Subscribe(QUARN_FIND_ENTRY(table_, KeyboardVisibilityChangedSubscribe), engine_,
                   std::move(callback));
}

void ViewWrapper::KeyboardVisibilityChangedUnsubscribe(std::uint64_t id) const {
  quarn::CallEntry(QUARN_FIND_ENTRY(table_, KeyboardVisibilityChangedUnsubscribe), engine_, id);
}

std::uint64_t ViewWrapper::ThemeChangedSubscribe(std::function<void()> callback) const {
  return Subscribe(QUARN_FIND_ENTRY(table_, ThemeChangedSubscribe), engine_, std::move(callback));
}

void ViewWrapper::ThemeChangedUnsubscribe(std::uint64_t id) const {
  quarn::CallEntry(QUARN_FIND_ENTRY(table_, ThemeChangedUnsubscribe), engine_, id);
}

}  // namespace cw
