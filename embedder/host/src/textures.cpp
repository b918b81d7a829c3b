#include <quarn/listener.h>
#include <quarn/sized_struct.h>
#include <veltra/host/textures.h>

#include <utility>

#include "platform_thread.h"

namespace veltra::host {
namespace {

// No screen is larger; past it, a frame's size is taken for a mistake before anything is allocated.
constexpr std::size_t kMaxSide = 16384;
constexpr std::size_t kBytesPerPixel = 4;

bool IsSane(std::size_t width, std::size_t height) {
  return width > 0 && height > 0 && width <= kMaxSide && height <= kMaxSide;
}

// Gives a frame back when it has been read.
template <class CFrame>
class FrameReleaser {
 public:
  explicit FrameReleaser(const CFrame* frame) : frame_(frame) {}
  ~FrameReleaser() {
    if (frame_->release != nullptr) {
      frame_->release(frame_->release_data);
    }
  }
  FrameReleaser(const FrameReleaser&) = delete;
  FrameReleaser& operator=(const FrameReleaser&) = delete;

 private:
  const CFrame* frame_;
};

std::optional<Frame> CopyFrame(const FlutterVeltraPixelBuffer& buffer) {
  if (buffer.pixels == nullptr || !IsSane(buffer.width, buffer.height)) {
    return std::nullopt;
  }
  Frame frame;
  frame.width = buffer.width;
  frame.height = buffer.height;
  frame.pixels.assign(buffer.pixels, buffer.pixels + buffer.width * buffer.height * kBytesPerPixel);
  return frame;
}

std::optional<Frame> CopyFrame(const FlutterVeltraOpenGLFrame& gl_frame) {
  if (!IsSane(gl_frame.width, gl_frame.height)) {
    return std::nullopt;
  }
  Frame frame;
  frame.is_opengl = true;
  frame.width = gl_frame.width;
  frame.height = gl_frame.height;
  frame.target = gl_frame.target;
  frame.name = gl_frame.name;
  frame.format = gl_frame.format;
  return frame;
}

template <class CFrame>
std::optional<Frame> AskFor(bool (*callback)(void*, std::size_t, std::size_t, CFrame*),
                            void* user_data, std::size_t width, std::size_t height) {
  CFrame c_frame{};
  c_frame.size = sizeof(CFrame);
  if (!callback(user_data, width, height, &c_frame)) {
    return std::nullopt;
  }
  const FrameReleaser<CFrame> releaser(&c_frame);
  return CopyFrame(c_frame);
}

}  // namespace

// Lives as long as it is registered or somebody pulls a frame; then releases the plug-in's data and
// calls whoever waits for that.
class RegisteredTexture {
 public:
  RegisteredTexture(const FlutterVeltraTexture* texture, std::shared_ptr<PlatformThread> thread)
      : get_pixel_buffer_(quarn::ReadField(texture, &FlutterVeltraTexture::GetPixelBuffer)),
        get_opengl_frame_(quarn::ReadField(texture, &FlutterVeltraTexture::GetOpenGLFrame)),
        release_(quarn::ReadField(texture, &FlutterVeltraTexture::release)),
        user_data_(quarn::ReadField(texture, &FlutterVeltraTexture::user_data)),
        thread_(std::move(thread)) {}
  ~RegisteredTexture() {
    if (release_ != nullptr) {
      release_(user_data_);
    }
    if (done_) {
      thread_->Post([done = done_] { done->InvokeOnce(); });
    }
  }
  RegisteredTexture(const RegisteredTexture&) = delete;
  RegisteredTexture& operator=(const RegisteredTexture&) = delete;

  bool IsValid() const { return (get_pixel_buffer_ == nullptr) != (get_opengl_frame_ == nullptr); }

  std::optional<Frame> Pull(std::size_t width, std::size_t height) {
    const std::lock_guard lock(pull_mutex_);
    return get_pixel_buffer_ != nullptr ? AskFor(get_pixel_buffer_, user_data_, width, height)
                                        : AskFor(get_opengl_frame_, user_data_, width, height);
  }

  void CallWhenGone(std::shared_ptr<quarn::CStyleListener<>> done) { done_ = std::move(done); }

  std::size_t available_frames = 0;  // guarded by Textures

 private:
  decltype(FlutterVeltraTexture::GetPixelBuffer) get_pixel_buffer_;
  decltype(FlutterVeltraTexture::GetOpenGLFrame) get_opengl_frame_;
  void (*release_)(void*);
  void* user_data_;
  std::shared_ptr<PlatformThread> thread_;
  std::mutex pull_mutex_;  // callbacks come one at a time
  std::shared_ptr<quarn::CStyleListener<>> done_;
};

Textures::Textures(std::shared_ptr<PlatformThread> thread) : thread_(std::move(thread)) {}
Textures::~Textures() = default;

std::shared_ptr<RegisteredTexture> Textures::Find(std::int64_t id) const {
  const std::lock_guard lock(mutex_);
  const auto found = textures_.find(id);
  return found == textures_.end() ? nullptr : found->second;
}

std::optional<Frame> Textures::PullFrame(std::int64_t id, std::size_t width, std::size_t height) {
  const auto texture = Find(id);
  return texture ? texture->Pull(width, height) : std::nullopt;
}

std::vector<std::int64_t> Textures::GetIds() const {
  const std::lock_guard lock(mutex_);
  std::vector<std::int64_t> ids;
  for (const auto& [id, texture] : textures_) {
    ids.push_back(id);
  }
  return ids;
}

std::size_t Textures::CountAvailableFrames(std::int64_t id) const {
  const std::lock_guard lock(mutex_);
  const auto found = textures_.find(id);
  return found == textures_.end() ? 0 : found->second->available_frames;
}

std::int64_t Textures::RegisterTexture(const FlutterVeltraTexture* texture) {
  auto registered = std::make_shared<RegisteredTexture>(texture, thread_);
  if (!registered->IsValid()) {
    return 0;
  }
  const std::lock_guard lock(mutex_);
  textures_.emplace(++last_id_, std::move(registered));
  return last_id_;
}

bool Textures::MarkTextureFrameAvailable(std::int64_t id) {
  const std::lock_guard lock(mutex_);
  const auto found = textures_.find(id);
  if (found == textures_.end()) {
    return false;
  }
  ++found->second->available_frames;
  return true;
}

void Textures::UnregisterTexture(std::int64_t id, const FlutterVeltraSlot* done) {
  auto listener = done == nullptr ? nullptr : std::make_shared<quarn::CStyleListener<>>(done);
  decltype(textures_)::node_type removed;
  {
    const std::lock_guard lock(mutex_);
    removed = textures_.extract(id);
  }
  if (removed) {
    removed.mapped()->CallWhenGone(std::move(listener));
  } else if (listener) {
    thread_->Post([listener] { listener->InvokeOnce(); });
  }
}

void Textures::Clear() {
  decltype(textures_) removed;
  {
    const std::lock_guard lock(mutex_);
    removed.swap(textures_);
  }
}

}  // namespace veltra::host
