// veltra::host::Textures: the textures that plug-ins registered, to be pulled and looked at.
#ifndef VELTRA_HOST_TEXTURES_H
#define VELTRA_HOST_TEXTURES_H

#include <flutter_veltra/texture.h>
#include <veltra/host/export.h>

#include <cstddef>
#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <vector>

namespace veltra::host {

class PlatformThread;
class RegisteredTexture;

// One frame of a texture.
struct Frame {
  bool is_opengl = false;
  std::size_t width = 0;
  std::size_t height = 0;
  std::vector<std::uint8_t> pixels;  // of a frame in memory: 4 bytes a pixel
  std::uint64_t target = 0;          // these three of an OpenGL frame
  std::uint64_t name = 0;
  std::uint64_t format = 0;
};

// Any thread, but for RegisterTexture and UnregisterTexture: they belong to the platform thread.
class VELTRA_HOST_EXPORT Textures {
 public:
  explicit Textures(std::shared_ptr<PlatformThread> thread);
  ~Textures();
  Textures(const Textures&) = delete;
  Textures& operator=(const Textures&) = delete;

  // Asks for a frame, as the engine does when it draws; the pixels are copied, and the frame is
  // released before this returns. Nothing for an unknown id, when there is no frame, and when the
  // frame is none (no pixels, or a size beyond 16,384 pixels a side).
  std::optional<Frame> PullFrame(std::int64_t id, std::size_t width, std::size_t height);

  // The textures that are registered.
  std::vector<std::int64_t> GetIds() const;
  // How often the plug-in said that there is a new frame; 0 for an unknown id.
  std::size_t CountAvailableFrames(std::int64_t id) const;

  // The plug-ins' side: what the entries of these names do.
  std::int64_t RegisterTexture(const FlutterVeltraTexture* texture);
  bool MarkTextureFrameAvailable(std::int64_t id);
  void UnregisterTexture(std::int64_t id, const FlutterVeltraSlot* done);

  // The engine ends: all textures go.
  void Clear();

 private:
  std::shared_ptr<RegisteredTexture> Find(std::int64_t id) const;

  std::shared_ptr<PlatformThread> thread_;
  mutable std::mutex mutex_;
  std::map<std::int64_t, std::shared_ptr<RegisteredTexture>> textures_;
  std::int64_t last_id_ = 0;
};

}  // namespace veltra::host

#endif  // VELTRA_HOST_TEXTURES_H
