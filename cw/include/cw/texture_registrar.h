// cw::TextureRegistrar: pictures that a plug-in makes and Dart shows.
#ifndef CW_TEXTURE_REGISTRAR_H
#define CW_TEXTURE_REGISTRAR_H

#include <flutter_veltra/plugin_context.h>
#include <flutter_veltra/texture.h>
#include <quarn/export.h>

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <utility>
#include <variant>

namespace cw {

// One frame in memory: `height` rows of `width` pixels of 4 bytes (red, green, blue, alpha),
// without gaps. `release`, unless it is empty, is called once the pixels have been read; a frame
// that an embedder could not give back is released at once and not shown.
struct PixelBuffer {
  const std::uint8_t* pixels = nullptr;
  std::size_t width = 0;
  std::size_t height = 0;
  std::function<void()> release;
};

// One frame in an OpenGL texture; target, name and format are OpenGL's numbers. `release` as above.
struct OpenGLFrame {
  std::uint64_t target = 0;
  std::uint64_t name = 0;
  std::uint64_t format = 0;
  std::size_t width = 0;
  std::size_t height = 0;
  std::function<void()> release;
};

// A texture whose frames are made in memory. The function is asked for a frame of about `width` by
// `height` pixels, from whatever thread draws, one call at a time; nothing means "no frame".
class TARV_EXPORT PixelBufferTexture {
 public:
  using Callback = std::function<std::optional<PixelBuffer>(std::size_t width, std::size_t height)>;

  explicit PixelBufferTexture(Callback callback) : callback_(std::move(callback)) {}

  std::optional<PixelBuffer> GetFrame(std::size_t width, std::size_t height) const {
    return callback_ ? callback_(width, height) : std::nullopt;
  }

 private:
  Callback callback_;
};

// A texture whose frames are drawn by OpenGL, in a context that shares with the engine's: see
// ViewWrapper::GetEglOffscreenContext. The function is called as above.
class TARV_EXPORT OpenGLTexture {
 public:
  using Callback = std::function<std::optional<OpenGLFrame>(std::size_t width, std::size_t height)>;

  explicit OpenGLTexture(Callback callback) : callback_(std::move(callback)) {}

  std::optional<OpenGLFrame> GetFrame(std::size_t width, std::size_t height) const {
    return callback_ ? callback_(width, height) : std::nullopt;
  }

 private:
  Callback callback_;
};

using TextureVariant = std::variant<PixelBufferTexture, OpenGLTexture>;

// Belongs to the platform thread but for MarkTextureFrameAvailable. An operation that the embedder
// does not provide logs that and returns its failure value.
class TARV_EXPORT TextureRegistrar {
  struct PrivateTag {
    explicit PrivateTag() = default;
  };

 public:
  // Empty when the context is null, too small or without an engine, and when the embedder does not
  // hand out its texture table.
  static std::unique_ptr<TextureRegistrar> Create(FlutterVeltraPluginContext* context);

  TextureRegistrar(PrivateTag, _FlutterVeltraEngine* engine,
                   const FlutterVeltraTextureProcTable& table)
      : engine_(engine), table_(table) {}
  TextureRegistrar(const TextureRegistrar&) = delete;
  TextureRegistrar& operator=(const TextureRegistrar&) = delete;

  _FlutterVeltraEngine* GetRef() const { return engine_; }

  // Takes the texture over until it has been unregistered, and returns the id that Dart shows it
  // by. 0 on failure, after a log line for a variant that holds no texture.
  std::int64_t RegisterTexture(TextureVariant texture) const;

  // There is a new frame to ask for. False for an unknown id. Any thread.
  bool MarkTextureFrameAvailable(std::int64_t id) const;

  // Ends the texture. `done`, unless it is empty, is called, later, once the texture's function
  // will not be called any more.
  void UnregisterTexture(std::int64_t id, std::function<void()> done = nullptr) const;

 private:
  _FlutterVeltraEngine* engine_;
  FlutterVeltraTextureProcTable table_;
};

}  // namespace cw

#endif  // CW_TEXTURE_REGISTRAR_H
