#include "tables.h"

#include <memory>

#include "engine_state.h"
#include "table_filler.h"

namespace veltra::host {
namespace {

// The C entry that forwards to an operation of one of the engine's parts; it does nothing, and
// returns nothing, once the engine is gone.
template <auto kOperation>
struct Forward;

template <class Result, class Part, class... Args, Result (Part::*kOperation)(Args...)>
struct Forward<kOperation> {
  static Result Call(_FlutterVeltraEngine* engine, Args... args) {
    const auto state = EngineState::FromRef(engine);
    if (!state) {
      return Result();
    }
    return (state->Get<Part>().*kOperation)(args...);
  }
};

// The same for an operation that takes a slot, whose content is released if the engine is gone.
template <auto kOperation>
struct ForwardSlot;

template <class Result, class Part, class Slot, class... Args,
          Result (Part::*kOperation)(const Slot*, Args...)>
struct ForwardSlot<kOperation> {
  static Result Call(_FlutterVeltraEngine* engine, const Slot* slot, Args... args) {
    const auto state = EngineState::FromRef(engine);
    if (!state) {
      ReleaseSlot(slot);
      return Result();
    }
    return (state->Get<Part>().*kOperation)(slot, args...);
  }

 private:
  static void ReleaseSlot(const Slot* slot) {
    if (const auto release = quarn::ReadField(slot, &Slot::release)) {
      release(quarn::ReadField(slot, &Slot::user_data));
    }
  }
};

std::uint64_t SubscribeToChannel(_FlutterVeltraEngine* engine, const char* channel,
                                 const FlutterVeltraBoolSlot* slot) {
  const auto state = EngineState::FromRef(engine);
  if (!state) {
    // Releases what the slot holds.
    const quarn::CStyleListener<bool> dropped(slot);
    return 0;
  }
  return state->Get<Messenger>().OnChannelUpdateSubscribe(channel, slot);
}

void UnregisterTexture(_FlutterVeltraEngine* engine, std::int64_t id,
                       const FlutterVeltraSlot* done) {
  const auto state = EngineState::FromRef(engine);
  if (!state) {
    const quarn::CStyleListener<> dropped(done);
    return;
  }
  state->Get<Textures>().UnregisterTexture(id, done);
}

// The filler for a table of an engine, or nothing when either is missing.
template <class Table>
std::optional<TableFiller<Table>> StartFilling(_FlutterVeltraEngine* engine, Table* table,
                                               std::size_t size,
                                               std::size_t TableSizes::*known_size) {
  const auto state = EngineState::FromRef(engine);
  if (!state || table == nullptr) {
    return std::nullopt;
  }
  const EngineOptions& options = state->GetOptions();
  return std::make_optional<TableFiller<Table>>(table, size, options.table_sizes.*known_size,
                                                options);
}

}  // namespace

// One line for an entry: its name in the table and the operation that it forwards to.
#define VELTRA_FILL(Table, Part, name) Fill(#name, &Table::name, &Forward<&Part::name>::Call)
#define VELTRA_FILL_SLOT(Table, Part, name) \
  Fill(#name, &Table::name, &ForwardSlot<&Part::name>::Call)

bool LoadApplicationTable(_FlutterVeltraEngine* engine, FlutterVeltraApplicationProcTable* table,
                          std::size_t size) {
  using Table = FlutterVeltraApplicationProcTable;
  auto filler = StartFilling(engine, table, size, &TableSizes::application);
  if (!filler) {
    return false;
  }
  (*filler)
      .VELTRA_FILL_SLOT(Table, Application, EnqueueTask)
      .VELTRA_FILL(Table, Application, HasPermission)
      .VELTRA_FILL(Table, Application, GetOSVersion)
      .VELTRA_FILL(Table, Application, GetEmbedderVersion)
      .VELTRA_FILL(Table, Application, Exit)
      .VELTRA_FILL(Table, Application, CreateMainWindow)
      .VELTRA_FILL(Table, Application, GetApplicationInfo)
      .VELTRA_FILL(Table, Application, GetPath)
      .VELTRA_FILL(Table, Application, GetLibraryPath)
      .VELTRA_FILL(Table, Application, GetDartEntryPointArgs);
  return true;
}

bool LoadMessengerTable(_FlutterVeltraEngine* engine, FlutterVeltraMessengerProcTable* table,
                        std::size_t size) {
  using Table = FlutterVeltraMessengerProcTable;
  auto filler = StartFilling(engine, table, size, &TableSizes::messenger);
  if (!filler) {
    return false;
  }
  (*filler)
      .Fill("Send", &Table::Send, &Forward<&Messenger::SendFromPlugin>::Call)
      .Fill("SetMessageHandler", &Table::SetMessageHandler,
            &Forward<&Messenger::SetPluginHandler>::Call)
      .Fill("OnChannelUpdateSubscribe", &Table::OnChannelUpdateSubscribe, &SubscribeToChannel)
      .VELTRA_FILL(Table, Messenger, OnChannelUpdateUnsubscribe);
  return true;
}

bool LoadViewTable(_FlutterVeltraEngine* engine, FlutterVeltraViewProcTable* table,
                   std::size_t size) {
  using Table = FlutterVeltraViewProcTable;
  auto filler = StartFilling(engine, table, size, &TableSizes::view);
  if (!filler) {
    return false;
  }
  (*filler)
      .VELTRA_FILL(Table, View, GetEglConfig)
      .VELTRA_FILL(Table, View, GetEglDisplay)
      .VELTRA_FILL(Table, View, GetNativeDisplay)
      .VELTRA_FILL(Table, View, GetEglGetProcAddress)
      .VELTRA_FILL(Table, View, GetEglContext)
      .VELTRA_FILL(Table, View, GetEglOffscreenContext)
      .VELTRA_FILL(Table, View, GetDevicePixelRatio)
      .VELTRA_FILL(Table, View, GetWindowVisibility)
      .VELTRA_FILL(Table, View, GetWindowMode)
      .VELTRA_FILL(Table, View, GetWindowType)
      .VELTRA_FILL(Table, View, GetWindowWidth)
      .VELTRA_FILL(Table, View, GetWindowHeight)
      .VELTRA_FILL(Table, View, GetWindowOrientation)
      .VELTRA_FILL(Table, View, GetDeviceOrientation)
      .VELTRA_FILL(Table, View, GetStatusBarVisibility)
      .VELTRA_FILL(Table, View, SetStatusBarVisibility)
      .VELTRA_FILL(Table, View, GetKeyboardVisibility)
      .VELTRA_FILL(Table, View, GetBackgroundVisibility)
      .VELTRA_FILL(Table, View, SetBackgroundVisibility)
      .VELTRA_FILL(Table, View, LockResources)
      .VELTRA_FILL(Table, View, GetTheme)
      .VELTRA_FILL(Table, View, GetWindowPayload)
      .VELTRA_FILL(Table, View, MaximizeWindow)
      .VELTRA_FILL(Table, View, MinimizeWindow)
      .VELTRA_FILL(Table, View, Fullscreen)
      .VELTRA_FILL(Table, View, Activate)
      .VELTRA_FILL(Table, View, CreatePopupWindow)
      .VELTRA_FILL(Table, View, CloseWindow)
      .VELTRA_FILL_SLOT(Table, View, WindowVisibilityChangedSubscribe)
      .VELTRA_FILL(Table, View, WindowVisibilityChangedUnsubscribe)
      .VELTRA_FILL_SLOT(Table, View, WindowOrientationChangedSubscribe)
      .VELTRA_FILL(Table, View, WindowOrientationChangedUnsubscribe)
      .VELTRA_FILL_SLOT(Table, View, DeviceOrientationChangedSubscribe)
      .VELTRA_FILL(Table, View, DeviceOrientationChangedUnsubscribe)
      .VELTRA_FILL_SLOT(Table, View, KeyboardVisibilityChangedSubscribe)
      .VELTRA_FILL(Table, View, KeyboardVisibilityChangedUnsubscribe)
      .VELTRA_FILL_SLOT(Table, View, ThemeChangedSubscribe)
      .VELTRA_FILL(Table, View, ThemeChangedUnsubscribe);
  return true;
}

bool LoadTextureTable(_FlutterVeltraEngine* engine, FlutterVeltraTextureProcTable* table,
                      std::size_t size) {
  using Table = FlutterVeltraTextureProcTable;
  auto filler = StartFilling(engine, table, size, &TableSizes::texture);
  if (!filler) {
    return false;
  }
  (*filler)
      .VELTRA_FILL_SLOT(Table, Textures, RegisterTexture)
      .VELTRA_FILL(Table, Textures, MarkTextureFrameAvailable)
      .Fill("UnregisterTexture", &Table::UnregisterTexture, &UnregisterTexture);
  return true;
}

void SendMessengerResponse(_FlutterVeltraEngine* engine, _FlutterVeltraResponse* response,
                           const std::uint8_t* data, std::size_t data_size) {
  Forward<&Messenger::SendResponse>::Call(engine, response, data, data_size);
}

}  // namespace veltra::host
