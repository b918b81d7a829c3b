#include <cw/texture_registrar.h>
#include <gmock/gmock.h>

#include <cstddef>
#include <functional>
#include <stdexcept>
#include <thread>

#include "engine_fixture.h"
#include "support/capture.h"
#include "support/log_line.h"

namespace {

using cw::TextureRegistrar;
using tarv::test::IsLogLine;
using tarv::test::StdoutOf;
using testing::ElementsAre;
using testing::IsEmpty;

class TextureRegistrarTest : public veltra::test::EngineTest {
 protected:
  std::unique_ptr<TextureRegistrar> Make() {
    return TextureRegistrar::Create(engine_->MakeContext());
  }
  veltra::host::Textures& Textures() { return engine_->GetTextures(); }
};

cw::PixelBufferTexture MakeNoTexture() { return cw::PixelBufferTexture(nullptr); }

TEST_F(TextureRegistrarTest, IsEmptyWithoutAContextOrAnEntryForItsTable) {
  EXPECT_FALSE(TextureRegistrar::Create(nullptr));
  EXPECT_FALSE(TextureRegistrar::Create(engine_->MakeContext(55)));
  EXPECT_TRUE(TextureRegistrar::Create(engine_->MakeContext(56)));
}

TEST_F(TextureRegistrarTest, ShowsPixelBuffersAndGivesThemBack) {
  const std::vector<std::uint8_t> pixels = {1, 2, 3, 4, 5, 6, 7, 8};
  int released = 0;
  std::vector<std::size_t> asked;
  const std::int64_t id =
      Make()->RegisterTexture(cw::PixelBufferTexture([&](std::size_t width, std::size_t height) {
        asked = {width, height};
        return cw::PixelBuffer{pixels.data(), 2, 1, [&released] { ++released; }};
      }));
  ASSERT_GT(id, 0);
  const auto frame = Textures().PullFrame(id, 20, 10);
  ASSERT_TRUE(frame);
  EXPECT_THAT(asked, ElementsAre(20, 10));
  EXPECT_FALSE(frame->is_opengl);
  EXPECT_EQ(frame->width, 2U);
  EXPECT_EQ(frame->height, 1U);
  EXPECT_EQ(frame->pixels, pixels);
  EXPECT_EQ(released, 1);
}

TEST_F(TextureRegistrarTest, ShowsOpenGLFrames) {
  int released = 0;
  const std::int64_t id =
      Make()->RegisterTexture(cw::OpenGLTexture([&](std::size_t width, std::size_t height) {
        return cw::OpenGLFrame{3553, 7, 32856, width, height, [&released] { ++released; }};
      }));
  const auto frame = Textures().PullFrame(id, 20, 10);
  ASSERT_TRUE(frame);
  EXPECT_TRUE(frame->is_opengl);
  EXPECT_EQ(frame->target, 3553U);
  EXPECT_EQ(frame->name, 7U);
  EXPECT_EQ(frame->format, 32856U);
  EXPECT_EQ(frame->width, 20U);
  EXPECT_EQ(frame->height, 10U);
  EXPECT_EQ(released, 1);
}

TEST_F(TextureRegistrarTest, ShowsNothingWhenThereIsNoFrame) {
  const auto registrar = Make();
  const auto empty = registrar->RegisterTexture(MakeNoTexture());
  EXPECT_FALSE(Textures().PullFrame(empty, 1, 1));
  const auto none = registrar->RegisterTexture(
      cw::OpenGLTexture([](std::size_t, std::size_t) { return std::nullopt; }));
  EXPECT_FALSE(Textures().PullFrame(none, 1, 1));
  EXPECT_FALSE(Textures().PullFrame(none + 1, 1, 1));
}

TEST_F(TextureRegistrarTest, GivesBackAFrameThatCannotBeShown) {
  int released = 0;
  const std::int64_t id =
      Make()->RegisterTexture(cw::PixelBufferTexture([&](std::size_t, std::size_t) {
        return cw::PixelBuffer{nullptr, 4, 4, [&released] { ++released; }};
      }));
  EXPECT_FALSE(Textures().PullFrame(id, 4, 4));
  EXPECT_EQ(released, 1);
}

// What a plug-in last registered with an embedder that keeps no textures of its own.
FlutterVeltraTexture& Registered() {
  static FlutterVeltraTexture texture{};
  return texture;
}

bool LoadTableOfOneEntry(_FlutterVeltraEngine*, FlutterVeltraTextureProcTable* table, std::size_t) {
  table->RegisterTexture = [](_FlutterVeltraEngine*, const FlutterVeltraTexture* texture) {
    Registered() = *texture;
    return std::int64_t{1};
  };
  return true;
}

// An embedder that hands out frame structures of its own size.
class ShortFrameTest : public TextureRegistrarTest {
 protected:
  ~ShortFrameTest() override { Registered().release(Registered().user_data); }

  void Register(cw::TextureVariant texture) {
    FlutterVeltraPluginContext context = *engine_->MakeContext();
    context.TextureProcTableLoad = &LoadTableOfOneEntry;
    TextureRegistrar::Create(&context)->RegisterTexture(std::move(texture));
  }

  cw::PixelBufferTexture MakeTexture(std::function<void()> release) {
    return cw::PixelBufferTexture([this, release](std::size_t, std::size_t) {
      return cw::PixelBuffer{&pixel_, 1, 1, release};
    });
  }

  // Asks for a frame by a structure of this size.
  static FlutterVeltraPixelBuffer Ask(std::size_t size, bool expected) {
    FlutterVeltraPixelBuffer frame{};
    frame.size = size;
    EXPECT_EQ(Registered().GetPixelBuffer(Registered().user_data, 1, 1, &frame), expected);
    return frame;
  }

  const std::uint8_t pixel_ = 7;
};

TEST_F(ShortFrameTest, WithoutRoomForTheReleaseGivesTheFrameBackAtOnceAndShowsNone) {
  int released = 0;
  Register(MakeTexture([&released] { ++released; }));
  EXPECT_EQ(Ask(40, false).release, nullptr);
  EXPECT_EQ(released, 1);
}

TEST_F(ShortFrameTest, WithoutRoomForTheReleaseGivesAnOpenGLFrameBackToo) {
  int released = 0;
  Register(cw::OpenGLTexture([&released](std::size_t, std::size_t) {
    return cw::OpenGLFrame{1, 2, 3, 4, 5, [&released] { ++released; }};
  }));
  FlutterVeltraOpenGLFrame frame{};
  frame.size = offsetof(FlutterVeltraOpenGLFrame, release_data);
  EXPECT_FALSE(Registered().GetOpenGLFrame(Registered().user_data, 1, 1, &frame));
  EXPECT_EQ(released, 1);
}

TEST_F(ShortFrameTest, WithRoomForTheReleaseIsGivenBackByTheEmbedder) {
  int released = 0;
  Register(MakeTexture([&released] { ++released; }));
  const FlutterVeltraPixelBuffer frame = Ask(sizeof(frame), true);
  EXPECT_EQ(released, 0);
  frame.release(frame.release_data);
  EXPECT_EQ(released, 1);
}

TEST_F(ShortFrameTest, ShowsAFrameThatNeedsNoRelease) {
  Register(MakeTexture(nullptr));
  EXPECT_EQ(Ask(32, true).pixels, &pixel_);
}

TEST_F(TextureRegistrarTest, TellsOfNewFramesFromAnyThread) {
  const auto registrar = Make();
  const std::int64_t id = registrar->RegisterTexture(MakeNoTexture());
  std::thread drawer([&] {
    EXPECT_TRUE(registrar->MarkTextureFrameAvailable(id));
    EXPECT_TRUE(registrar->MarkTextureFrameAvailable(id));
  });
  drawer.join();
  EXPECT_EQ(Textures().CountAvailableFrames(id), 2U);
  EXPECT_FALSE(registrar->MarkTextureFrameAvailable(id + 1));
}

TEST_F(TextureRegistrarTest, UnregistersATextureAndThenCallsBack) {
  const auto registrar = Make();
  veltra::test::Tracker tracker;
  const std::int64_t id = registrar->RegisterTexture(cw::PixelBufferTexture(
      [tracked = tracker.Track()](std::size_t, std::size_t) { return std::nullopt; }));
  EXPECT_THAT(Textures().GetIds(), ElementsAre(id));
  bool done = false;
  registrar->UnregisterTexture(id, [&] {
    done = true;
    EXPECT_TRUE(tracker.IsReleased());
  });
  EXPECT_FALSE(done);
  EXPECT_TRUE(RunUntil([&done] { return done; }));
  EXPECT_THAT(Textures().GetIds(), IsEmpty());
}

TEST_F(TextureRegistrarTest, UnregistersWithoutACallbackToo) {
  const auto registrar = Make();
  const std::int64_t id = registrar->RegisterTexture(MakeNoTexture());
  registrar->UnregisterTexture(id);
  EXPECT_THAT(Textures().GetIds(), IsEmpty());
  bool done = false;
  registrar->UnregisterTexture(id, [&done] { done = true; });
  EXPECT_TRUE(RunUntil([&done] { return done; }));
}

TEST_F(TextureRegistrarTest, ReleasesItsTexturesWithTheEngine) {
  const auto registrar = Make();
  veltra::test::Tracker tracker;
  const auto texture = [&tracker] {
    return cw::OpenGLTexture(
        [tracked = tracker.Track()](std::size_t, std::size_t) { return std::nullopt; });
  };
  registrar->RegisterTexture(texture());
  engine_.reset();
  EXPECT_TRUE(tracker.IsReleased());
  EXPECT_EQ(registrar->RegisterTexture(texture()), 0);
  EXPECT_TRUE(tracker.IsReleased());
}

// Leaves the variant that it is put into without a value.
struct ThrowsWhenCopied {
  ThrowsWhenCopied() = default;
  ThrowsWhenCopied(const ThrowsWhenCopied&) { throw std::runtime_error("no copy"); }
  std::optional<cw::PixelBuffer> operator()(std::size_t, std::size_t) const { return {}; }
};

TEST_F(TextureRegistrarTest, RefusesAVariantWithoutATexture) {
  cw::TextureVariant variant = MakeNoTexture();
  const ThrowsWhenCopied function;
  EXPECT_THROW(variant.emplace<cw::PixelBufferTexture>(function), std::runtime_error);
  if (!variant.valueless_by_exception()) {
    // The function was copied before the variant gave up its value; make it give it up now.
    EXPECT_THROW(variant.emplace<cw::OpenGLTexture>(
                     []() -> cw::OpenGLTexture { throw std::runtime_error("none"); }()),
                 std::runtime_error);
  }
  struct Throwing {
    operator cw::OpenGLTexture() const { throw std::runtime_error("none"); }
  };
  if (!variant.valueless_by_exception()) {
    EXPECT_THROW(variant.emplace<cw::OpenGLTexture>(Throwing()), std::runtime_error);
  }
  ASSERT_TRUE(variant.valueless_by_exception());
  std::int64_t id = 1;
  const auto registrar = Make();
  EXPECT_THAT(StdoutOf([&] { id = registrar->RegisterTexture(std::move(variant)); }),
              IsLogLine("error", "Attempting to register unknown texture variant."));
  EXPECT_EQ(id, 0);
  EXPECT_THAT(Textures().GetIds(), IsEmpty());
}

TEST_F(TextureRegistrarTest, LogsEachOperationThatIsNotProvided) {
  veltra::host::EngineOptions options;
  options.table_sizes.texture = 8;
  Restart(options);
  const auto registrar = Make();
  const auto line = [](const std::string& name) {
    return IsLogLine("error", "Method '" + name + "' is not provided by the loaded API.");
  };
  EXPECT_THAT(StdoutOf([&] { EXPECT_EQ(registrar->RegisterTexture(MakeNoTexture()), 0); }),
              line("RegisterTexture"));
  EXPECT_THAT(StdoutOf([&] { EXPECT_FALSE(registrar->MarkTextureFrameAvailable(1)); }),
              line("MarkTextureFrameAvailable"));
  EXPECT_THAT(StdoutOf([&] { registrar->UnregisterTexture(1, [] { FAIL(); }); }),
              line("UnregisterTexture"));
}

}  // namespace
