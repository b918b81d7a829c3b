// veltra::host::View: a simulated window. Set its properties, and plug-ins see and hear of it; look
// at it, and see what plug-ins did to it.
#ifndef VELTRA_HOST_VIEW_H
#define VELTRA_HOST_VIEW_H

#include <cw/encodable_value.h>
#include <cw/view_wrapper.h>
#include <flutter_veltra/view.h>
#include <veltra/host/application.h>
#include <veltra/host/export.h>
#include <veltra/host/subscriptions.h>

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <vector>

namespace veltra::host {

class EngineState;

// The graphics handles that the view claims to be drawn with. A workstation's view is not drawn, so
// all are null unless a test says otherwise; nothing here follows the pointers.
struct EglHandles {
  void* config = nullptr;
  void* display = nullptr;
  void* native_display = nullptr;
  FlutterVeltraEglGetProcAddress get_proc_address = nullptr;
  void* context = nullptr;
  void* offscreen_context = nullptr;
};

// Setting a property to another value notifies its subscribers from the event loop. Belongs to the
// platform thread.
class VELTRA_HOST_EXPORT View {
 public:
  explicit View(EngineState* engine);

  void SetEglHandles(const EglHandles& handles) { egl_ = handles; }
  void SetDevicePixelRatio(double ratio) { device_pixel_ratio_ = ratio; }
  void SetWindowVisibility(bool visible);
  void SetWindowMode(cw::WindowMode mode) { mode_ = mode; }
  void SetWindowType(cw::WindowType type) { type_ = type; }
  void SetWindowSize(std::int32_t width, std::int32_t height);
  void SetWindowOrientation(cw::Orientation orientation);
  void SetDeviceOrientation(cw::Orientation orientation);
  void SetKeyboardVisibility(bool visible);
  // Always notifies.
  void SetTheme(const cw::Theme& theme);
  void SetWindowPayload(const cw::EncodableValue& payload);

  // How often plug-ins activated the window, and the popup windows that they opened.
  std::size_t CountActivations() const { return activations_; }
  const std::vector<Window>& GetPopupWindows() const { return popups_; }
  // The payload that the window was closed with; empty while it is open.
  const std::optional<cw::EncodableValue>& GetClosePayload() const { return close_payload_; }
  // Locks that have not been released.
  std::size_t CountLocks() const { return locks_; }

  // The plug-ins' side: what the entries of these names do.
  void* GetEglConfig() { return egl_.config; }
  void* GetEglDisplay() { return egl_.display; }
  void* GetNativeDisplay() { return egl_.native_display; }
  FlutterVeltraEglGetProcAddress GetEglGetProcAddress() { return egl_.get_proc_address; }
  void* GetEglContext() { return egl_.context; }
  void* GetEglOffscreenContext() { return egl_.offscreen_context; }
  double GetDevicePixelRatio() { return device_pixel_ratio_; }
  bool GetWindowVisibility() { return visible_; }
  std::int32_t GetWindowMode() { return static_cast<std::int32_t>(mode_); }
  std::int32_t GetWindowType() { return static_cast<std::int32_t>(type_); }
  std::int32_t GetWindowWidth() { return width_; }
  std::int32_t GetWindowHeight() { return height_; }
  std::int32_t GetWindowOrientation() { return static_cast<std::int32_t>(orientation_); }
  std::int32_t GetDeviceOrientation() { return static_cast<std::int32_t>(device_orientation_); }
  std::int32_t GetStatusBarVisibility() { return status_bar_; }
  void SetStatusBarVisibility(std::int32_t visibility) { status_bar_ = visibility; }
  bool GetKeyboardVisibility() { return keyboard_visible_; }
  bool GetBackgroundVisibility() { return background_visible_; }
  void SetBackgroundVisibility(bool visible) { background_visible_ = visible; }
  bool LockResources(FlutterVeltraResourcesLock* lock);
  bool GetTheme(FlutterVeltraTheme* theme);
  bool GetWindowPayload(FlutterVeltraBytes* payload);
  void MaximizeWindow();
  void MinimizeWindow();
  void Fullscreen();
  void Activate();
  bool CreatePopupWindow(const char* entry_point, const std::uint8_t* payload,
                         std::size_t payload_size);
  void CloseWindow(const std::uint8_t* payload, std::size_t payload_size);
  std::uint64_t WindowVisibilityChangedSubscribe(const FlutterVeltraSlot* slot);
  void WindowVisibilityChangedUnsubscribe(std::uint64_t id);
  std::uint64_t WindowOrientationChangedSubscribe(const FlutterVeltraSlot* slot);
  void WindowOrientationChangedUnsubscribe(std::uint64_t id);
  std::uint64_t DeviceOrientationChangedSubscribe(const FlutterVeltraSlot* slot);
  void DeviceOrientationChangedUnsubscribe(std::uint64_t id);
  std::uint64_t KeyboardVisibilityChangedSubscribe(const FlutterVeltraSlot* slot);
  void KeyboardVisibilityChangedUnsubscribe(std::uint64_t id);
  std::uint64_t ThemeChangedSubscribe(const FlutterVeltraSlot* slot);
  void ThemeChangedUnsubscribe(std::uint64_t id);

  // A lock that LockResources gave out goes.
  void Unlock();
  // The engine ends: subscriptions go.
  void Clear();

 private:
  // GetTheme and GetWindowPayload hand it out; it never changes, only gives way to another one.
  struct Resources {
    cw::Theme theme;
    std::vector<std::uint8_t> payload;
  };
  using ResourcesRef = std::shared_ptr<const Resources>;
  using Event = Subscriptions<> View::*;

  void Notify(Event event);
  void Show(bool visible, cw::WindowMode mode);

  EngineState* engine_;
  EglHandles egl_;
  double device_pixel_ratio_ = 1.0;
  bool visible_ = true;
  cw::WindowMode mode_ = cw::WindowMode::Normal;
  cw::WindowType type_ = cw::WindowType::Main;
  std::int32_t width_ = 720;
  std::int32_t height_ = 1280;
  cw::Orientation orientation_ = cw::Orientation::Portrait;
  cw::Orientation device_orientation_ = cw::Orientation::Portrait;
  std::int32_t status_bar_ = FLUTTER_VELTRA_STATUS_BAR_VISIBLE;
  bool keyboard_visible_ = false;
  bool background_visible_ = true;
  ResourcesRef resources_;
  ResourcesRef locked_;  // what the locks keep in place; null without one
  std::size_t locks_ = 0;
  std::size_t activations_ = 0;
  std::vector<Window> popups_;
  std::optional<cw::EncodableValue> close_payload_;
  Subscriptions<> visibility_changed_;
  Subscriptions<> orientation_changed_;
  Subscriptions<> device_orientation_changed_;
  Subscriptions<> keyboard_changed_;
  Subscriptions<> theme_changed_;
};

}  // namespace veltra::host

#endif  // VELTRA_HOST_VIEW_H
