#include <cw/plugin_registrar.h>
#include <gmock/gmock.h>

#include <string>
#include <vector>

#include "engine_fixture.h"
#include "support/capture.h"
#include "support/fake_embedder.h"
#include "support/log_line.h"

namespace {

using cw::PluginRegistrar;
using cw::PluginRegistrarManager;
using cw::test_support::FakeEmbedder;
using tarv::test::IsLogLine;
using tarv::test::StdoutOf;
using testing::ElementsAre;
using testing::IsEmpty;

PluginRegistrar* GetRegistrar(FlutterVeltraPluginContext* context) {
  return PluginRegistrarManager::GetInstance().GetRegistrarImpl(context);
}

class NotedPlugin : public cw::Plugin {
 public:
  NotedPlugin(std::vector<std::string>* log, PluginRegistrar* registrar)
      : log_(log), registrar_(registrar) {}
  ~NotedPlugin() override { log_->emplace_back("destroyed"); }
  void Release() override {
    log_->push_back(registrar_->GetMessenger() == nullptr ? "released late" : "released");
  }

 private:
  std::vector<std::string>* log_;
  PluginRegistrar* registrar_;
};

class PluginRegistrarTest : public veltra::test::EngineTest {
 protected:
  std::vector<std::string> log_;
};

TEST_F(PluginRegistrarTest, IsOneForAllContextsOfAnEngine) {
  PluginRegistrar* const registrar = GetRegistrar(engine_->MakeContext());
  ASSERT_NE(registrar, nullptr);
  EXPECT_EQ(GetRegistrar(engine_->MakeContext()), registrar);
  EXPECT_EQ(GetRegistrar(engine_->MakeContext(24)), registrar);
}

TEST_F(PluginRegistrarTest, IsMadeOnceAndKeepsItsPluginsWhenItIsAskedForAgain) {
  FakeEmbedder embedder;
  auto* const context = embedder.MakeContext(72, 1004);
  PluginRegistrar* const registrar = GetRegistrar(context);
  registrar->AddPlugin(std::make_shared<NotedPlugin>(&log_, registrar));
  const std::vector<std::string> loads = embedder.loads;
  EXPECT_THAT(loads, ElementsAre("application 88", "view 312", "messenger 40", "textures 32"));
  for (int i = 0; i < 3; ++i) {
    EXPECT_EQ(GetRegistrar(embedder.MakeContext(72, 1004)), registrar);
  }
  EXPECT_EQ(embedder.loads, loads);
  EXPECT_EQ(embedder.subscribed_to_end, 1);
  EXPECT_THAT(log_, IsEmpty());
  embedder.on_destroyed(FakeEmbedder::MakeEngine(1004));
  EXPECT_THAT(log_, ElementsAre("released", "destroyed"));
  EXPECT_THAT(embedder.engines, testing::Each(FakeEmbedder::MakeEngine(1004)));
}

TEST_F(PluginRegistrarTest, WithdrawsItsChannelHandlersAtItsEngineEnd) {
  FakeEmbedder embedder;
  PluginRegistrar* const registrar = GetRegistrar(embedder.MakeContext(72, 1005));
  registrar->GetMessenger()->SetMessageHandler(
      "channel", [](const std::uint8_t*, std::size_t, const cw::BinaryReply&) {});
  registrar->AddPlugin(std::make_shared<NotedPlugin>(&embedder.log, registrar));
  embedder.on_destroyed(FakeEmbedder::MakeEngine(1005));
  EXPECT_THAT(embedder.log, ElementsAre("set channel", "released", "destroyed", "clear channel"));
  EXPECT_THAT(embedder.engines, testing::Each(FakeEmbedder::MakeEngine(1005)));
}

TEST_F(PluginRegistrarTest, IsAnotherForAnotherEngine) {
  veltra::host::Engine other;
  EXPECT_NE(GetRegistrar(other.MakeContext()), GetRegistrar(engine_->MakeContext()));
}

TEST_F(PluginRegistrarTest, NeedsAContextThatNamesItsEngine) {
  FakeEmbedder embedder;
  EXPECT_EQ(GetRegistrar(nullptr), nullptr);
  EXPECT_EQ(GetRegistrar(embedder.MakeContext(0)), nullptr);
  EXPECT_EQ(GetRegistrar(embedder.MakeContext(23)), nullptr);
  EXPECT_EQ(GetRegistrar(embedder.MakeContext(72, 0)), nullptr);
}

TEST_F(PluginRegistrarTest, OffersTheServicesOfItsEngine) {
  PluginRegistrar* const registrar = GetRegistrar(engine_->MakeContext());
  ASSERT_TRUE(registrar->GetApplicationWrapper());
  EXPECT_EQ(registrar->GetApplicationWrapper()->GetRef(), engine_->GetRef());
  ASSERT_TRUE(registrar->GetViewWrapper());
  EXPECT_EQ(registrar->GetViewWrapper()->GetRef(), engine_->GetRef());
  ASSERT_TRUE(registrar->GetMessenger());
  EXPECT_EQ(registrar->GetMessenger()->GetRef(), engine_->GetRef());
  ASSERT_TRUE(registrar->GetTextureRegistrar());
  EXPECT_EQ(registrar->GetTextureRegistrar()->GetRef(), engine_->GetRef());
}

TEST_F(PluginRegistrarTest, LacksTheServicesThatASmallContextCannotName) {
  PluginRegistrar* const registrar = GetRegistrar(engine_->MakeContext(40));
  ASSERT_NE(registrar, nullptr);
  EXPECT_TRUE(registrar->GetApplicationWrapper());
  EXPECT_FALSE(registrar->GetViewWrapper());
  EXPECT_FALSE(registrar->GetTextureRegistrar());
  EXPECT_FALSE(registrar->GetMessenger());
}

TEST_F(PluginRegistrarTest, IsDestroyedWithItsEngineAndReleasesItsPlugins) {
  PluginRegistrar* const registrar = GetRegistrar(engine_->MakeContext());
  registrar->AddPlugin(std::make_shared<NotedPlugin>(&log_, registrar));
  const std::weak_ptr<cw::ApplicationWrapper> application = registrar->GetApplicationWrapper();
  engine_.reset();
  EXPECT_THAT(log_, ElementsAre("released", "destroyed"));
  EXPECT_TRUE(application.expired());
}

TEST_F(PluginRegistrarTest, SubscribesToItsEnginesEndOnlyWhenTheContextReachesThatFar) {
  FakeEmbedder embedder;
  ASSERT_NE(GetRegistrar(embedder.MakeContext(39, 1001)), nullptr);
  EXPECT_EQ(embedder.on_destroyed, nullptr);
  ASSERT_NE(GetRegistrar(embedder.MakeContext(40, 1002)), nullptr);
  ASSERT_NE(embedder.on_destroyed, nullptr);
  auto* const without_entry = embedder.MakeContext(40, 1003);
  without_entry->SetRegistrarDestroyedCallback = nullptr;
  EXPECT_NE(GetRegistrar(without_entry), nullptr);
  for (const std::uintptr_t engine : {1001U, 1002U, 1003U}) {
    embedder.on_destroyed(FakeEmbedder::MakeEngine(engine));
  }
}

TEST_F(PluginRegistrarTest, OfAnOldContextOutlivesItsEngine) {
  auto* const context = engine_->MakeContext(24);
  PluginRegistrar* const registrar = GetRegistrar(context);
  registrar->AddPlugin(std::make_shared<NotedPlugin>(&log_, registrar));
  _FlutterVeltraEngine* const handle = engine_->GetRef();
  engine_.reset();
  EXPECT_THAT(log_, IsEmpty());
  PluginRegistrarManager::OnRegistrarDestroyed(handle);
  EXPECT_THAT(log_, ElementsAre("released late", "destroyed"));
}

TEST_F(PluginRegistrarTest, IgnoresTheEndOfAnEngineWithoutRegistrar) {
  PluginRegistrar* const registrar = GetRegistrar(engine_->MakeContext());
  PluginRegistrarManager::OnRegistrarDestroyed(nullptr);
  PluginRegistrarManager::OnRegistrarDestroyed(FakeEmbedder::MakeEngine(123456));
  EXPECT_EQ(GetRegistrar(engine_->MakeContext()), registrar);
}

TEST_F(PluginRegistrarTest, KeepsAPluginOnceAndAlive) {
  PluginRegistrar* const registrar = GetRegistrar(engine_->MakeContext());
  auto plugin = std::make_shared<NotedPlugin>(&log_, registrar);
  registrar->AddPlugin(plugin);
  registrar->AddPlugin(plugin);
  registrar->AddPlugin(nullptr);
  EXPECT_EQ(plugin.use_count(), 2);
  plugin.reset();
  EXPECT_THAT(log_, IsEmpty());
  registrar->ClearPlugins();
  EXPECT_THAT(log_, ElementsAre("released", "destroyed"));
}

TEST_F(PluginRegistrarTest, ReleasesEveryPluginBeforeTheFirstIsDestroyed) {
  PluginRegistrar* const registrar = GetRegistrar(engine_->MakeContext());
  registrar->AddPlugin(std::make_shared<NotedPlugin>(&log_, registrar));
  registrar->AddPlugin(std::make_shared<NotedPlugin>(&log_, registrar));
  registrar->ClearPlugins();
  EXPECT_THAT(log_, ElementsAre("released", "released", "destroyed", "destroyed"));
  registrar->ClearPlugins();
  EXPECT_EQ(log_.size(), 4U);
}

TEST_F(PluginRegistrarTest, ReleasingAPluginDoesNothingByDefault) {
  PluginRegistrar* const registrar = GetRegistrar(engine_->MakeContext());
  const auto plugin = std::make_shared<cw::Plugin>();
  registrar->AddPlugin(plugin);
  registrar->ClearPlugins();
  EXPECT_EQ(plugin.use_count(), 1);
}

class ReentrantPlugin : public cw::Plugin {
 public:
  explicit ReentrantPlugin(FlutterVeltraPluginContext* context) : context_(context) {}
  void Release() override {
    GetRegistrar(context_)->AddPlugin(std::make_shared<cw::Plugin>());
    GetRegistrar(context_)->ClearPlugins();
  }

 private:
  FlutterVeltraPluginContext* context_;
};

TEST_F(PluginRegistrarTest, MayBeUsedByAPluginThatIsBeingReleased) {
  auto* const context = engine_->MakeContext();
  const auto plugin = std::make_shared<ReentrantPlugin>(context);
  GetRegistrar(context)->AddPlugin(plugin);
  engine_.reset();
  EXPECT_EQ(plugin.use_count(), 1);
}

// Asks for its registrar once more as it dies.
class LateAskingPlugin : public cw::Plugin {
 public:
  LateAskingPlugin(FlutterVeltraPluginContext* context, std::shared_ptr<cw::Plugin> next)
      : context_(context), next_(std::move(next)) {}
  ~LateAskingPlugin() override { GetRegistrar(context_)->AddPlugin(next_); }

 private:
  FlutterVeltraPluginContext* context_;
  std::shared_ptr<cw::Plugin> next_;
};

TEST_F(PluginRegistrarTest, MadeByADyingPluginGoesWithTheEngineToo) {
  auto* const context = engine_->MakeContext();
  auto last = std::make_shared<cw::Plugin>();
  const std::weak_ptr<cw::Plugin> watched = last;
  // The first one dies while the registrar is still there, the second one with it.
  GetRegistrar(context)->AddPlugin(std::make_shared<LateAskingPlugin>(
      context, std::make_shared<LateAskingPlugin>(context, std::move(last))));
  engine_.reset();
  EXPECT_TRUE(watched.expired());
}

TEST_F(PluginRegistrarTest, ReportsTheLibraryPathOfTheApplication) {
  veltra::host::EngineOptions options;
  options.library_path = "/opt/app/lib";
  Restart(options);
  EXPECT_EQ(GetRegistrar(engine_->MakeContext())->GetLibraryPath(), "/opt/app/lib");
}

TEST_F(PluginRegistrarTest, LogsThatTheLibraryPathIsNotProvidedWithoutAnApplication) {
  PluginRegistrar* const registrar = GetRegistrar(engine_->MakeContext(24));
  std::filesystem::path path = "not empty";
  EXPECT_THAT(StdoutOf([&] { path = registrar->GetLibraryPath(); }),
              IsLogLine("error", "Method 'GetLibraryPath' is not provided by the loaded API."));
  EXPECT_TRUE(path.empty());
  PluginRegistrarManager::OnRegistrarDestroyed(engine_->GetRef());
}

}  // namespace
