// What a registrar hands out: application, window, messenger with its channels, textures.
#include <cw/event_channel.h>
#include <cw/method_channel.h>
#include <cw/plugin_registrar.h>

#include <memory>

#include "check.h"

namespace plugin {
namespace {

using cw::EncodableValue;

void UseApplication(const cw::ApplicationWrapper& application) {
  application.EnqueueTask([] {}, 0);
  PLUGIN_CHECK(!application.HasPermission("Camera"));
  PLUGIN_CHECK(!application.HasPermission(cw::Permission::Camera));
  PLUGIN_CHECK(cw::PermissionToStringView(cw::Permission::Camera) == "Camera");
  application.GetOSVersion();
  application.GetEmbedderVersion();
  application.GetApplicationInfo(cw::InfoType::Name);
  application.GetPath(cw::DirectoryType::Cache);
  PLUGIN_CHECK(!application.GetLibraryPath().empty());
  application.GetDartEntryPointArgs();
  PLUGIN_CHECK(application.CreateMainWindow("main", EncodableValue(1)));
  application.Exit(0);
}

void ReadView(const cw::ViewWrapper& view) {
  view.GetEglConfig();
  view.GetEglDisplay();
  view.GetNativeDisplay();
  view.GetEglGetProcAddress();
  view.GetEglContext();
  view.GetEglOffscreenContext();
  PLUGIN_CHECK(view.GetDevicePixelRatio() > 0);
  view.GetWindowVisibility();
  view.GetWindowType();
  view.GetWindowWidth();
  view.GetWindowHeight();
  view.GetWindowOrientation();
  view.GetDeviceOrientation();
  view.GetKeyboardVisibility();
  view.GetTheme();
  view.GetWindowPayload();
}

void ChangeView(const cw::ViewWrapper& view) {
  view.SetStatusBarVisibility(cw::StatusBarVisibility::Hidden);
  PLUGIN_CHECK(view.GetStatusBarVisibility() == cw::StatusBarVisibility::Hidden);
  view.SetBackgroundVisibility(false);
  PLUGIN_CHECK(!view.GetBackgroundVisibility());
  view.MaximizeWindow();
  PLUGIN_CHECK(view.GetWindowMode() == cw::WindowMode::Maximized);
  view.MinimizeWindow();
  view.Fullscreen();
  view.Activate();
  view.CreatePopupWindow("popup");
  view.CloseWindow();
}

void WatchView(const cw::ViewWrapper& view) {
  view.WindowVisibilityChangedUnsubscribe(view.WindowVisibilityChangedSubscribe([] {}));
  view.WindowOrientationChangedUnsubscribe(view.WindowOrientationChangedSubscribe([] {}));
  view.DeviceOrientationChangedUnsubscribe(view.DeviceOrientationChangedSubscribe([] {}));
  view.KeyboardVisibilityChangedUnsubscribe(view.KeyboardVisibilityChangedSubscribe([] {}));
  view.ThemeChangedUnsubscribe(view.ThemeChangedSubscribe([] {}));
}

void UseChannels(cw::BinaryMessenger* messenger) {
  messenger->Send("raw", nullptr, 0);
  messenger->SetMessageHandler("raw", [](const auto*, auto, const auto&) {});
  PLUGIN_CHECK(!messenger->GetHandlerLife("raw").expired());
  messenger->SetMessageHandler("raw", nullptr);
  messenger->OnChannelUpdateUnsubscribe("raw",
                                        messenger->OnChannelUpdateSubscribe("raw", [](bool) {}));
  cw::MethodChannel<> methods(messenger, "methods");
  methods.SetMethodCallHandler([](const auto&, auto result) { result->NotImplemented(); });
  methods.InvokeMethod("call", nullptr);
  cw::EventChannel<> events(messenger, "events");
  events.SetStreamHandler(std::make_unique<cw::StreamHandlerFunctions<>>(nullptr, nullptr));
}

void UseTextures(const cw::TextureRegistrar& textures) {
  const auto id = textures.RegisterTexture(
      cw::PixelBufferTexture([](std::size_t, std::size_t) { return std::nullopt; }));
  PLUGIN_CHECK(textures.MarkTextureFrameAvailable(id));
  textures.UnregisterTexture(id);
}

struct Plugin : cw::Plugin {};

}  // namespace

void UseRegistrar(cw::PluginRegistrar* registrar) {
  PLUGIN_CHECK(!registrar->GetLibraryPath().empty());
  registrar->AddPlugin(std::make_shared<Plugin>());
  UseApplication(*registrar->GetApplicationWrapper());
  ReadView(*registrar->GetViewWrapper());
  ChangeView(*registrar->GetViewWrapper());
  WatchView(*registrar->GetViewWrapper());
  UseChannels(registrar->GetMessenger());
  UseTextures(*registrar->GetTextureRegistrar());
  registrar->ClearPlugins();
}

// What a plug-in makes itself of its context.
void UseContext(FlutterVeltraPluginContext* context) {
  PLUGIN_CHECK(cw::ApplicationWrapper::Create(context) != nullptr);
  PLUGIN_CHECK(cw::ViewWrapper::Create(context) != nullptr);
  PLUGIN_CHECK(cw::BinaryMessenger::Create(context) != nullptr);
  PLUGIN_CHECK(cw::TextureRegistrar::Create(context) != nullptr);
  const cw::PluginRegistrar none(nullptr);
  PLUGIN_CHECK(none.GetMessenger() == nullptr);
  cw::PluginRegistrarManager::OnRegistrarDestroyed(nullptr);
}

}  // namespace plugin
