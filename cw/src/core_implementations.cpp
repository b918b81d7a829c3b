#include <cw/binary_messenger.h>
#include <cw/plugin_registrar.h>
#include <cw/texture_registrar.h>
#include <quarn/library_api.h>
#include <quarn/logger.h>
#include <quarn/slot.h>

#include <iostream>
#include <utility>

#include "c_text.h"
#include "plugin_context.h"

namespace cw {

using internal::GetEngine;
using internal::LoadTable;
using internal::ReachesCWhole;

// ---- The registrars of the process --------------------------------------------------------------

PluginRegistrarManager& PluginRegistrarManager::GetInstance() {
  static PluginRegistrarManager* const manager = new PluginRegistrarManager;
  return *manager;
}

PluginRegistrar* PluginRegistrarManager::GetRegistrarImpl(FlutterVeltraPluginContext* context) {
  _FlutterVeltraEngine* const engine = GetEngine(context);
  if (engine == nullptr) {
    return nullptr;
  }
  const auto found = registrars_.find(engine);
  if (found != registrars_.end()) {
    return found->second.get();
  }
  auto* const registrar =
      registrars_.emplace(engine, std::make_unique<PluginRegistrar>(context)).first->second.get();
  if (const auto on_destroyed =
          quarn::ReadField(context, &FlutterVeltraPluginContext::SetRegistrarDestroyedCallback)) {
    on_destroyed(engine, &PluginRegistrarManager::OnRegistrarDestroyed);
  }
  return registrar;
}

void PluginRegistrarManager::OnRegistrarDestroyed(_FlutterVeltraEngine* engine) {
  auto& registrars = GetInstance().registrars_;
  const auto found = registrars.find(engine);
  if (found == registrars.end()) {
    return;
  }
  // Stays in the map while its plug-ins are told, so that they still find it.
  found->second->ClearPlugins();
  // Taken out before it is destroyed: what dies with it may come back here.
  const auto dying = registrars.extract(engine);
}

// ---- One registrar ------------------------------------------------------------------------------

// The analyzer loses track of owning pointers that are returned into members.
// NOLINTBEGIN(clang-analyzer-cplusplus.NewDeleteLeaks)
PluginRegistrar::PluginRegistrar(FlutterVeltraPluginContext* context)
    : application_(ApplicationWrapper::Create(context)),
      view_(ViewWrapper::Create(context)),
      messenger_(BinaryMessenger::Create(context)),
      textures_(TextureRegistrar::Create(context)) {}
// NOLINTEND(clang-analyzer-cplusplus.NewDeleteLeaks)

PluginRegistrar::~PluginRegistrar() { ClearPlugins(); }

void PluginRegistrar::AddPlugin(const std::shared_ptr<Plugin>& plugin) {
  if (plugin) {
    plugins_.insert(plugin);
  }
}

void PluginRegistrar::ClearPlugins() {
  // Taken out first: a plug-in may call back into the registrar.
  const auto plugins = std::exchange(plugins_, {});
  for (const std::shared_ptr<Plugin>& plugin : plugins) {
    plugin->Release();
  }
}

std::filesystem::path PluginRegistrar::GetLibraryPath() const {
  if (!application_) {
    QUARN_LOG_ERROR() << "Method 'GetLibraryPath' is not provided by the loaded API.";
    return {};
  }
  return application_->GetLibraryPath();
}

// ---- Messages -----------------------------------------------------------------------------------

namespace {

using SendResponse = decltype(FlutterVeltraMessage::SendResponse);

// The one answer to one message; shared by the copies of its reply function.
class Responder {
 public:
  Responder(_FlutterVeltraEngine* engine, const FlutterVeltraMessage* message)
      : engine_(engine),
        response_(quarn::ReadField(message, &FlutterVeltraMessage::response)),
        send_(quarn::ReadField(message, &FlutterVeltraMessage::SendResponse)) {}

  void Send(const std::uint8_t* data, std::size_t size) {
    if (std::exchange(answered_, true)) {
      std::cerr << "Error: Response can be set only once. Ignoring duplicate response.\n";
      return;
    }
    _FlutterVeltraResponse* const response = std::exchange(response_, nullptr);
    if (response != nullptr && send_ != nullptr) {
      send_(engine_, response, data, size);
    }
  }

 private:
  _FlutterVeltraEngine* engine_;
  _FlutterVeltraResponse* response_;
  SendResponse send_;
  bool answered_ = false;
};

using Reply = std::function<void(const std::uint8_t*, std::size_t)>;

constexpr std::string_view kChannel = "channel";

// Owns and calls what Send moved to the heap.
void OnReply(void* user_data, const std::uint8_t* data, std::size_t size) {
  const std::unique_ptr<Reply> reply(static_cast<Reply*>(user_data));
  (*reply)(data, size);
}

}  // namespace

std::unique_ptr<BinaryMessenger> BinaryMessenger::Create(FlutterVeltraPluginContext* context) {
  const auto table = LoadTable(context, &FlutterVeltraPluginContext::MessengerProcTableLoad);
  return table ? std::make_unique<BinaryMessenger>(PrivateTag(), GetEngine(context), *table)
               : nullptr;
}

BinaryMessenger::~BinaryMessenger() {
  life_.reset();
  while (!handlers_.empty()) {
    RemoveHandler(std::string(handlers_.begin()->first));
  }
}

void BinaryMessenger::Send(const std::string& channel, const std::uint8_t* message,
                           std::size_t size, Reply reply) const {
  const auto send = quarn::ReadField(&table_, &FlutterVeltraMessengerProcTable::Send);
  if (send == nullptr || !ReachesCWhole(kChannel, channel)) {
    return;
  }
  if (!reply) {
    send(engine_, channel.c_str(), message, size, nullptr, nullptr);
    return;
  }
  auto owned_reply = std::make_unique<Reply>(std::move(reply));
  if (send(engine_, channel.c_str(), message, size, &OnReply, owned_reply.get())) {
    static_cast<void>(owned_reply.release());  // OnReply's from here on.
  }
}

void BinaryMessenger::SetMessageHandler(const std::string& channel, BinaryMessageHandler handler) {
  const auto set = quarn::ReadField(&table_, &FlutterVeltraMessengerProcTable::SetMessageHandler);
  if (set == nullptr || !ReachesCWhole(kChannel, channel)) {
    return;
  }
  if (!handler) {
    RemoveHandler(channel);
    return;
  }
  auto stored = std::make_shared<const BinaryMessageHandler>(std::move(handler));
  Slot& slot = handlers_[channel];
  slot.messenger = this;
  slot.life = std::make_shared<const bool>(true);
  // The handler that was there goes last: what it owns may call back in here.
  const StoredHandler replaced = std::exchange(slot.handler, std::move(stored));
  set(engine_, channel.c_str(), &BinaryMessenger::OnMessage, &slot);
}

std::weak_ptr<const void> BinaryMessenger::GetHandlerLife(const std::string& channel) const {
  const auto found = handlers_.find(channel);
  return found == handlers_.end() ? nullptr : found->second.life;
}

void BinaryMessenger::RemoveHandler(const std::string& channel) {
  const auto removed = handlers_.extract(channel);
  const auto set = quarn::ReadField(&table_, &FlutterVeltraMessengerProcTable::SetMessageHandler);
  if (set != nullptr) {
    set(engine_, channel.c_str(), nullptr, nullptr);
  }
}

void BinaryMessenger::OnMessage(void* user_data, const FlutterVeltraMessage* message) {
  if (user_data == nullptr || message == nullptr) {
    return;
  }
  const auto* const slot = static_cast<const Slot*>(user_data);
  // Held for the length of the call, which may replace or remove the handler.
  const StoredHandler handler = slot->handler;
  const auto responder = std::make_shared<Responder>(slot->messenger->engine_, message);
  (*handler)(
      quarn::ReadField(message, &FlutterVeltraMessage::message),
      quarn::ReadField(message, &FlutterVeltraMessage::message_size),
      [responder](const std::uint8_t* data, std::size_t size) { responder->Send(data, size); });
}

std::uint64_t BinaryMessenger::OnChannelUpdateSubscribe(const std::string& channel,
                                                        std::function<void(bool)> callback) const {
  const auto subscribe = QUARN_FIND_ENTRY(table_, OnChannelUpdateSubscribe);
  if (subscribe == nullptr || !ReachesCWhole(kChannel, channel)) {
    return 0;
  }
  const auto slot = quarn::CreateSlot<FlutterVeltraBoolSlot, bool>(std::move(callback));
  return subscribe(engine_, channel.c_str(), &slot);
}

void BinaryMessenger::OnChannelUpdateUnsubscribe(const std::string& channel,
                                                 std::uint64_t id) const {
  const auto unsubscribe = QUARN_FIND_ENTRY(table_, OnChannelUpdateUnsubscribe);
  if (unsubscribe != nullptr && ReachesCWhole(kChannel, channel)) {
    unsubscribe(engine_, channel.c_str(), id);
  }
}

// ---- Textures -----------------------------------------------------------------------------------

namespace {

void CallRelease(void* release_data) {
  const std::unique_ptr<std::function<void()>> release(
      static_cast<std::function<void()>*>(release_data));
  (*release)();
}

// Whether the structure can take the frame with all that it has. An embedder that knows no release
// could never give the frame back: it is given back here, unshown.
template <class Frame, class CFrame>
bool CanTake(const CFrame* out, const Frame& frame) {
  if (!frame.release ||
      quarn::FieldFits(quarn::StatedSize(out), quarn::OffsetOf(&CFrame::release_data))) {
    return true;
  }
  frame.release();
  return false;
}

// What both kinds of frames have in common.
template <class Frame, class CFrame>
quarn::StructFiller<CFrame> FillFrame(Frame frame, CFrame* out) {
  quarn::StructFiller<CFrame> filler(out, quarn::StatedSize(out));
  filler.Fill(&CFrame::width, frame.width).Fill(&CFrame::height, frame.height);
  if (frame.release) {
    filler.Fill(&CFrame::release, &CallRelease);
    filler.Fill(&CFrame::release_data,
                std::make_unique<std::function<void()>>(std::move(frame.release)).release());
  }
  return filler;  // NOLINT(clang-analyzer-cplusplus.NewDeleteLeaks): the structure owns it now
}

bool GetPixelBuffer(void* user_data, std::size_t width, std::size_t height,
                    FlutterVeltraPixelBuffer* out) {
  auto frame = std::get<PixelBufferTexture>(*static_cast<TextureVariant*>(user_data))
                   .GetFrame(width, height);
  if (!frame || !CanTake(out, *frame)) {
    return false;
  }
  const std::uint8_t* const pixels = frame->pixels;
  FillFrame(*std::move(frame), out).Fill(&FlutterVeltraPixelBuffer::pixels, pixels);
  return true;
}

bool GetOpenGLFrame(void* user_data, std::size_t width, std::size_t height,
                    FlutterVeltraOpenGLFrame* out) {
  auto frame =
      std::get<OpenGLTexture>(*static_cast<TextureVariant*>(user_data)).GetFrame(width, height);
  if (!frame || !CanTake(out, *frame)) {
    return false;
  }
  const OpenGLFrame numbers{frame->target, frame->name, frame->format, 0, 0, nullptr};
  FillFrame(*std::move(frame), out)
      .Fill(&FlutterVeltraOpenGLFrame::target, numbers.target)
      .Fill(&FlutterVeltraOpenGLFrame::name, numbers.name)
      .Fill(&FlutterVeltraOpenGLFrame::format, numbers.format);
  return true;
}

void DeleteTexture(void* user_data) { delete static_cast<TextureVariant*>(user_data); }

}  // namespace

std::unique_ptr<TextureRegistrar> TextureRegistrar::Create(FlutterVeltraPluginContext* context) {
  const auto table = LoadTable(context, &FlutterVeltraPluginContext::TextureProcTableLoad);
  return table ? std::make_unique<TextureRegistrar>(PrivateTag(), GetEngine(context), *table)
               : nullptr;
}

std::int64_t TextureRegistrar::RegisterTexture(TextureVariant texture) const {
  const auto register_texture = QUARN_FIND_ENTRY(table_, RegisterTexture);
  if (register_texture == nullptr) {
    return 0;
  }
  FlutterVeltraTexture slot{sizeof(FlutterVeltraTexture), nullptr, nullptr, nullptr, nullptr};
  if (std::holds_alternative<PixelBufferTexture>(texture)) {
    slot.GetPixelBuffer = &GetPixelBuffer;
  } else if (std::holds_alternative<OpenGLTexture>(texture)) {
    slot.GetOpenGLFrame = &GetOpenGLFrame;
  } else {
    QUARN_LOG_ERROR() << "Attempting to register unknown texture variant.";
    return 0;
  }
  slot.release = &DeleteTexture;
  slot.user_data = std::make_unique<TextureVariant>(std::move(texture)).release();
  return register_texture(engine_, &slot);
}

bool TextureRegistrar::MarkTextureFrameAvailable(std::int64_t id) const {
  return quarn::CallEntry(QUARN_FIND_ENTRY(table_, MarkTextureFrameAvailable), false, engine_, id);
}

void TextureRegistrar::UnregisterTexture(std::int64_t id, std::function<void()> done) const {
  const auto unregister = QUARN_FIND_ENTRY(table_, UnregisterTexture);
  if (unregister == nullptr) {
    return;
  }
  if (!done) {
    unregister(engine_, id, nullptr);
    return;
  }
  const auto slot = quarn::CreateSlot<FlutterVeltraSlot>(std::move(done));
  unregister(engine_, id, &slot);
}

}  // namespace cw
