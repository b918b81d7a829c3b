#include <cw/texture_registrar.h>
#include <quarn/library_api.h>
#include <quarn/logger.h>
#include <quarn/sized_struct.h>
#include <quarn/slot.h>

#include <utility>

#include "plugin_context.h"

namespace cw {

using internal::GetEngine;
using internal::LoadTable;

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

// Fills the fields that both kinds of frames have.
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
