#include <cw/standard_message_codec.h>
#include <veltra/host/view.h>

#include <memory>
#include <utility>

#include "dart_serializer.h"
#include "engine_state.h"

namespace veltra::host {
namespace {

// The engine and the resources that a plug-in's lock keeps alive.
struct LockData {
  _FlutterVeltraEngine* engine;
  std::shared_ptr<const void> resources;  // for what is read after the engine's end
};

void ReleaseLock(void* lock_data) {
  const std::unique_ptr<LockData> lock(static_cast<LockData*>(lock_data));
  if (const auto state = EngineState::FromRef(lock->engine)) {
    state->Get<View>().Unlock();
  }
}

cw::Theme MakeDefaultTheme() {
  constexpr std::uint32_t kBlue = 0xFF1565C0;
  constexpr std::uint32_t kTeal = 0xFF00897B;
  constexpr std::uint32_t kAmber = 0xFFFFB300;
  constexpr std::uint32_t kWhite = 0xFFFFFFFF;
  return {"workstation", false, kBlue, kTeal, kAmber, kWhite};
}

}  // namespace

View::View(EngineState* engine)
    : engine_(engine),
      resources_(std::make_shared<const Resources>(Resources{MakeDefaultTheme(), {}})) {}

void View::SetWindowVisibility(bool visible) {
  if (std::exchange(visible_, visible) != visible) {
    Notify(&View::visibility_changed_);
  }
}

void View::SetWindowSize(std::int32_t width, std::int32_t height) {
  width_ = width;
  height_ = height;
}

void View::SetWindowOrientation(cw::Orientation orientation) {
  if (std::exchange(orientation_, orientation) != orientation) {
    Notify(&View::orientation_changed_);
  }
}

void View::SetDeviceOrientation(cw::Orientation orientation) {
  if (std::exchange(device_orientation_, orientation) != orientation) {
    Notify(&View::device_orientation_changed_);
  }
}

void View::SetKeyboardVisibility(bool visible) {
  if (std::exchange(keyboard_visible_, visible) != visible) {
    Notify(&View::keyboard_changed_);
  }
}

void View::SetTheme(const cw::Theme& theme) {
  resources_ = std::make_shared<const Resources>(Resources{theme, resources_->payload});
  Notify(&View::theme_changed_);
}

void View::SetWindowPayload(const cw::EncodableValue& payload) {
  const auto bytes = cw::StandardMessageCodec::GetInstance(&DartSerializer::GetInstance())
                         .EncodeMessage(payload)
                         .Extract();
  resources_ = std::make_shared<const Resources>(
      Resources{resources_->theme, bytes ? *bytes : std::vector<std::uint8_t>()});
}

void View::Notify(Event event) {
  engine_->Post([event](EngineState& engine) { (engine.Get<View>().*event).Notify(); });
}

bool View::LockResources(FlutterVeltraResourcesLock* lock) {
  using Lock = FlutterVeltraResourcesLock;
  if (lock == nullptr ||
      !quarn::FieldFits(quarn::StatedSize(lock), quarn::OffsetOf(&Lock::lock_data))) {
    return false;
  }
  // Locks that overlap share what the first one found: whoever holds one may read at any time, and
  // what it was handed must not go with another's lock.
  if (locks_++ == 0) {
    locked_ = resources_;
  }
  auto data = std::make_unique<LockData>(LockData{engine_->GetRef(), locked_});
  quarn::StructFiller<Lock>(lock, quarn::StatedSize(lock))
      .Fill(&Lock::release, &ReleaseLock)
      .Fill(&Lock::lock_data, data.release());
  return true;  // NOLINT(clang-analyzer-cplusplus.NewDeleteLeaks): ReleaseLock's from here on
}

void View::Unlock() {
  if (--locks_ == 0) {
    locked_.reset();
  }
}

bool View::GetTheme(FlutterVeltraTheme* theme) {
  if (theme == nullptr || !locked_) {
    return false;
  }
  const cw::Theme& current = locked_->theme;
  quarn::StructFiller<FlutterVeltraTheme>(theme, quarn::StatedSize(theme))
      .Fill(&FlutterVeltraTheme::name, current.name.c_str())
      .Fill(&FlutterVeltraTheme::is_dark, current.is_dark ? 1 : 0)
      .Fill(&FlutterVeltraTheme::primary_color, current.primary_color)
      .Fill(&FlutterVeltraTheme::secondary_color, current.secondary_color)
      .Fill(&FlutterVeltraTheme::highlight_color, current.highlight_color)
      .Fill(&FlutterVeltraTheme::background_color, current.background_color);
  return true;
}

bool View::GetWindowPayload(FlutterVeltraBytes* payload) {
  if (payload == nullptr || !locked_) {
    return false;
  }
  quarn::StructFiller<FlutterVeltraBytes>(payload, quarn::StatedSize(payload))
      .Fill(&FlutterVeltraBytes::data, locked_->payload.data())
      .Fill(&FlutterVeltraBytes::data_size, locked_->payload.size());
  return true;
}

void View::Show(bool visible, cw::WindowMode mode) {
  mode_ = mode;
  SetWindowVisibility(visible);
}

void View::MaximizeWindow() { Show(true, cw::WindowMode::Maximized); }
void View::MinimizeWindow() { Show(false, cw::WindowMode::Minimized); }
void View::Fullscreen() { Show(true, cw::WindowMode::Fullscreen); }

void View::Activate() {
  ++activations_;
  Show(true, mode_ == cw::WindowMode::Minimized ? cw::WindowMode::Normal : mode_);
}

bool View::CreatePopupWindow(const char* entry_point, const std::uint8_t* payload,
                             std::size_t payload_size) {
  if (entry_point == nullptr || *entry_point == '\0') {
    return false;
  }
  popups_.push_back({entry_point, cw::EncodableValue::Deserialize(payload, payload_size)});
  return true;
}

void View::CloseWindow(const std::uint8_t* payload, std::size_t payload_size) {
  close_payload_ = cw::EncodableValue::Deserialize(payload, payload_size);
  SetWindowVisibility(false);
}

std::uint64_t View::WindowVisibilityChangedSubscribe(const FlutterVeltraSlot* slot) {
  return visibility_changed_.Add(slot);
}
void View::WindowVisibilityChangedUnsubscribe(std::uint64_t id) { visibility_changed_.Remove(id); }

std::uint64_t View::WindowOrientationChangedSubscribe(const FlutterVeltraSlot* slot) {
  return orientation_changed_.Add(slot);
}
void View::WindowOrientationChangedUnsubscribe(std::uint64_t id) {
  orientation_changed_.Remove(id);
}

std::uint64_t View::DeviceOrientationChangedSubscribe(const FlutterVeltraSlot* slot) {
  return device_orientation_changed_.Add(slot);
}
void View::DeviceOrientationChangedUnsubscribe(std::uint64_t id) {
  device_orientation_changed_.Remove(id);
}

std::uint64_t View::KeyboardVisibilityChangedSubscribe(const FlutterVeltraSlot* slot) {
  return keyboard_changed_.Add(slot);
}
void View::KeyboardVisibilityChangedUnsubscribe(std::uint64_t id) { keyboard_changed_.Remove(id); }

std::uint64_t View::ThemeChangedSubscribe(const FlutterVeltraSlot* slot) {
  return theme_changed_.Add(slot);
}
void View::ThemeChangedUnsubscribe(std::uint64_t id) { theme_changed_.Remove(id); }

void View::Clear() {
  for (Subscriptions<>* subscriptions :
       {&visibility_changed_, &orientation_changed_, &device_orientation_changed_,
        &keyboard_changed_, &theme_changed_}) {
    subscriptions->Clear();
  }
}

}  // namespace veltra::host
