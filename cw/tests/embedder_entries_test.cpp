// What exactly the wrappers hand to the embedder's entries.
#include <cw/application_wrapper.h>
#include <cw/texture_registrar.h>
#include <cw/view_wrapper.h>
#include <gmock/gmock.h>

#include <functional>
#include <limits>
#include <string>

#include "engine_fixture.h"
#include "support/capture.h"
#include "support/fake_embedder.h"
#include "support/log_line.h"

namespace {

using cw::test_support::FakeEmbedder;
using tarv::test::IsLogLine;
using tarv::test::StdoutOf;
using testing::Each;
using testing::ElementsAre;
using testing::IsEmpty;

class EmbedderEntries : public testing::Test {
 protected:
  std::shared_ptr<cw::ApplicationWrapper> MakeApplication() {
    return cw::ApplicationWrapper::Create(embedder_.MakeContext(72));
  }
  std::unique_ptr<cw::TextureRegistrar> MakeTextures() {
    return cw::TextureRegistrar::Create(embedder_.MakeContext(72));
  }
  void TearDown() override { EXPECT_THAT(embedder_.engines, Each(FakeEmbedder::MakeEngine(4711))); }

  FakeEmbedder embedder_;
};

// A name that C would take for "Cam".
const std::string kCutName("Cam\0era", 7);

auto IsRefusalOf(const std::string& what) {
  return IsLogLine("error", "The " + what +
                                " 'Cam\\x00era' has a NUL inside, at which the embedder would end "
                                "it. Nothing was asked of the embedder; pass a name without one.");
}

TEST_F(EmbedderEntries, GetTheWholeParameterOfATask) {
  const auto application = MakeApplication();
  application->EnqueueTask([] {}, std::numeric_limits<unsigned int>::max());
  application->Invoke([] {}, 0x12345678);
  EXPECT_THAT(embedder_.log, ElementsAre("enqueue 4294967295", "enqueue 305419896"));
}

TEST_F(EmbedderEntries, GetNoEmptyTask) {
  const auto application = MakeApplication();
  EXPECT_EQ(StdoutOf([&] { application->EnqueueTask(nullptr, 1); }), "");
  application->Invoke(std::function<void()>(), 1);
  EXPECT_THAT(embedder_.log, IsEmpty());
}

TEST_F(EmbedderEntries, GetTheWholeExitCode) {
  const auto application = MakeApplication();
  for (const int code : {std::numeric_limits<int>::min(), -1, 0, 256, 65536}) {
    application->Exit(code);
  }
  EXPECT_THAT(embedder_.log,
              ElementsAre("exit -2147483648", "exit -1", "exit 0", "exit 256", "exit 65536"));
}

TEST_F(EmbedderEntries, GetTheWholeIdOfATexture) {
  const auto textures = MakeTextures();
  const std::int64_t id = textures->RegisterTexture(cw::PixelBufferTexture(nullptr));
  EXPECT_EQ(id, 0x100000007);
  EXPECT_TRUE(textures->MarkTextureFrameAvailable(id));
  bool done = false;
  textures->UnregisterTexture(id, [&done] { done = true; });
  EXPECT_TRUE(done);
  EXPECT_THAT(embedder_.log,
              ElementsAre("register 40", "mark 4294967303", "unregister 4294967303"));
  EXPECT_THAT(embedder_.loads, ElementsAre("textures 32"));
}

TEST_F(EmbedderEntries, GetNoPermissionWithANulInside) {
  const auto application = MakeApplication();
  bool has = true;
  EXPECT_THAT(StdoutOf([&] { has = application->HasPermission(kCutName); }),
              IsRefusalOf("permission"));
  EXPECT_FALSE(has);
  EXPECT_TRUE(application->HasPermission("Camera"));
  EXPECT_THAT(embedder_.log, ElementsAre("permission Camera"));
}

TEST_F(EmbedderEntries, GetNoLibraryNameWithANulInside) {
  const auto application = MakeApplication();
  EXPECT_EQ(application->GetLibraryPath("libx.so"), "/lib");
  std::filesystem::path path = "unchanged";
  EXPECT_THAT(StdoutOf([&] { path = application->GetLibraryPath(kCutName); }),
              IsRefusalOf("library's name"));
  EXPECT_TRUE(path.empty());
  EXPECT_THAT(embedder_.log, ElementsAre("library libx.so"));
}

TEST_F(EmbedderEntries, GetNoEntryPointWithANulInside) {
  const auto application = MakeApplication();
  EXPECT_TRUE(application->CreateMainWindow("start", "x"));
  bool opened = true;
  EXPECT_THAT(StdoutOf([&] { opened = application->CreateMainWindow(kCutName); }),
              IsRefusalOf("entry point"));
  EXPECT_FALSE(opened);
  EXPECT_THAT(embedder_.log, ElementsAre("main window start 3"));
}

class PopupWindow : public veltra::test::EngineTest {};

TEST_F(PopupWindow, IsNotOpenedAtAnEntryPointWithANulInside) {
  const auto view = cw::ViewWrapper::Create(engine_->MakeContext());
  bool opened = true;
  EXPECT_THAT(StdoutOf([&] { opened = view->CreatePopupWindow(kCutName, {}); }),
              IsRefusalOf("entry point"));
  EXPECT_FALSE(opened);
}

TEST_F(EmbedderEntries, GetALockBackThatTheyHaveGiven) {
  EXPECT_TRUE(cw::ViewWrapper::Create(embedder_.MakeContext(72))->GetTheme());
  EXPECT_THAT(embedder_.log, ElementsAre("lock", "theme", "release lock"));
}

TEST_F(EmbedderEntries, GetNoLockBackThatTheyHaveRefused) {
  embedder_.lock_succeeds = false;
  EXPECT_FALSE(cw::ViewWrapper::Create(embedder_.MakeContext(72))->GetTheme());
  EXPECT_THAT(embedder_.log, ElementsAre("lock"));
}

TEST_F(EmbedderEntries, NeedNotWantALockBack) {
  embedder_.lock_release = nullptr;
  EXPECT_TRUE(cw::ViewWrapper::Create(embedder_.MakeContext(72))->GetTheme());
  EXPECT_THAT(embedder_.log, ElementsAre("lock", "theme"));
}

}  // namespace
