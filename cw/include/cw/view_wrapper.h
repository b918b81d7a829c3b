// cw::ViewWrapper: the engine's window, its display, and what happens to them.
#ifndef CW_VIEW_WRAPPER_H
#define CW_VIEW_WRAPPER_H

#include <cw/encodable_value.h>
#include <flutter_veltra/plugin_context.h>
#include <flutter_veltra/view.h>
#include <quarn/export.h>

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>

namespace cw {

enum class WindowMode : std::int32_t {
  Normal = FLUTTER_VELTRA_WINDOW_MODE_NORMAL,
  Maximized = FLUTTER_VELTRA_WINDOW_MODE_MAXIMIZED,
  Minimized = FLUTTER_VELTRA_WINDOW_MODE_MINIMIZED,
  Fullscreen = FLUTTER_VELTRA_WINDOW_MODE_FULLSCREEN,
};

enum class WindowType : std::int32_t {
  Main = FLUTTER_VELTRA_WINDOW_TYPE_MAIN,
  Popup = FLUTTER_VELTRA_WINDOW_TYPE_POPUP,
};

// How the top of a picture is turned, clockwise from the device's natural position.
enum class Orientation : std::int32_t {
  Unknown = FLUTTER_VELTRA_ORIENTATION_UNKNOWN,
  Portrait = FLUTTER_VELTRA_ORIENTATION_PORTRAIT,
  Landscape = FLUTTER_VELTRA_ORIENTATION_LANDSCAPE,
  PortraitFlipped = FLUTTER_VELTRA_ORIENTATION_PORTRAIT_FLIPPED,
  LandscapeFlipped = FLUTTER_VELTRA_ORIENTATION_LANDSCAPE_FLIPPED,
};

enum class StatusBarVisibility : std::int32_t {
  Hidden = FLUTTER_VELTRA_STATUS_BAR_HIDDEN,
  Visible = FLUTTER_VELTRA_STATUS_BAR_VISIBLE,
  Transparent = FLUTTER_VELTRA_STATUS_BAR_TRANSPARENT,  // drawn over the window's top edge
};

// The user's theme. Colours are 0xAARRGGBB.
struct Theme {
  std::string name;
  bool is_dark = false;
  std::uint32_t primary_color = 0;
  std::uint32_t secondary_color = 0;
  std::uint32_t highlight_color = 0;
  std::uint32_t background_color = 0;
};

// Belongs to the platform thread. An operation that the embedder does not provide logs that and
// returns an empty result: null, 0, false, nothing, the first value of an enumeration.
class TARV_EXPORT ViewWrapper {
  struct PrivateTag {
    explicit PrivateTag() = default;
  };

 public:
  // Empty when the context is null, too small or without an engine, and when the embedder does not
  // hand out its view table.
  static std::unique_ptr<ViewWrapper> Create(FlutterVeltraPluginContext* context);

  ViewWrapper(PrivateTag, _FlutterVeltraEngine* engine, const FlutterVeltraViewProcTable& table)
      : engine_(engine), table_(table) {}
  ViewWrapper(const ViewWrapper&) = delete;
  ViewWrapper& operator=(const ViewWrapper&) = delete;

  _FlutterVeltraEngine* GetRef() const { return engine_; }

  // The handles that the view is drawn with, as the graphics library's own types; null where the
  // embedder does not draw by it. Owned by the embedder.
  void* GetEglConfig() const;
  void* GetEglDisplay() const;
  void* GetNativeDisplay() const;
  FlutterVeltraEglGetProcAddress GetEglGetProcAddress() const;
  void* GetEglContext() const;
  // A context that shares its objects with the engine's, for work on a thread of the plug-in's.
  void* GetEglOffscreenContext() const;

  // Physical pixels to a logical one; 1 when the embedder cannot tell.
  double GetDevicePixelRatio() const;

  bool GetWindowVisibility() const;
  WindowMode GetWindowMode() const;
  WindowType GetWindowType() const;
  // In physical pixels.
  std::int32_t GetWindowWidth() const;
  std::int32_t GetWindowHeight() const;
  Orientation GetWindowOrientation() const;
  Orientation GetDeviceOrientation() const;

  StatusBarVisibility GetStatusBarVisibility() const;
  void SetStatusBarVisibility(StatusBarVisibility visibility) const;
  // Whether the on-screen keyboard is shown.
  bool GetKeyboardVisibility() const;
  // Whether the window's background is drawn.
  bool GetBackgroundVisibility() const;
  void SetBackgroundVisibility(bool visible) const;

  std::optional<Theme> GetTheme() const;
  // The value that the window was opened with; null when there is none.
  EncodableValue GetWindowPayload() const;

  void MaximizeWindow() const;
  void MinimizeWindow() const;
  void Fullscreen() const;
  // Brings the window to the front.
  void Activate() const;
  // Opens a further window, which runs the Dart function `entry_point` with `payload`. False when
  // it could not be opened, after a log line for an empty entry point. Throws std::length_error for
  // a payload that nests deeper than kMaxNesting, as the next operation.
  bool CreatePopupWindow(const std::string& entry_point, const EncodableValue& payload = {}) const;
  // Closes the window and hands `payload` to whoever opened it.
  void CloseWindow(const EncodableValue& payload = {}) const;

  // Each has `callback` called after every change, until the id that it returns is unsubscribed or
  // the engine ends. 0 on failure, with the callback destroyed.
  std::uint64_t WindowVisibilityChangedSubscribe(std::function<void()> callback) const;
  void WindowVisibilityChangedUnsubscribe(std::uint64_t id) const;
  std::uint64_t WindowOrientationChangedSubscribe(std::function<void()> callback) const;
  void WindowOrientationChangedUnsubscribe(std::uint64_t id) const;
  std::uint64_t DeviceOrientationChangedSubscribe(std::function<void()> callback) const;
  void DeviceOrientationChangedUnsubscribe(std::uint64_t id) const;
  std::uint64_t KeyboardVisibilityChangedSubscribe(std::function<void()> callback) const;
  void KeyboardVisibilityChangedUnsubscribe(std::uint64_t id) const;
  std::uint64_t ThemeChangedSubscribe(std::function<void()> callback) const;
  void ThemeChangedUnsubscribe(std::uint64_t id) const;

 private:
  _FlutterVeltraEngine* engine_;
  FlutterVeltraViewProcTable table_;
};

}  // namespace cw

#endif  // CW_VIEW_WRAPPER_H
