#include <cw/view_wrapper.h>
#include <gmock/gmock.h>

#include "engine_fixture.h"
#include "support/capture.h"
#include "support/log_line.h"

namespace {

using cw::ViewWrapper;
using tarv::test::IsLogLine;
using tarv::test::StdoutOf;

std::string NotProvided(const std::string& name) {
  return "Method '" + name + "' is not provided by the loaded API.";
}

class ViewWrapperTest : public veltra::test::EngineTest {
 protected:
  std::unique_ptr<ViewWrapper> Make() { return ViewWrapper::Create(engine_->MakeContext()); }

  std::unique_ptr<ViewWrapper> MakeWithout(const std::string& entry) {
    veltra::host::EngineOptions options;
    options.missing_entries = {entry};
    Restart(options);
    return Make();
  }

  veltra::host::View& View() { return engine_->GetView(); }
};

TEST_F(ViewWrapperTest, IsEmptyWithoutAContextOrAnEntryForItsTable) {
  EXPECT_FALSE(ViewWrapper::Create(nullptr));
  EXPECT_FALSE(ViewWrapper::Create(engine_->MakeContext(47)));
  EXPECT_TRUE(ViewWrapper::Create(engine_->MakeContext(48)));
}

TEST_F(ViewWrapperTest, ReturnsTheHandlesOfTheGraphicsLibrary) {
  int things[5] = {};
  const veltra::host::EglHandles handles{
      &things[0], &things[1],
      &things[2], [](const char*) -> FlutterVeltraEglFunction { return nullptr; },
      &things[3], &things[4]};
  View().SetEglHandles(handles);
  const auto view = Make();
  EXPECT_EQ(view->GetEglConfig(), handles.config);
  EXPECT_EQ(view->GetEglDisplay(), handles.display);
  EXPECT_EQ(view->GetNativeDisplay(), handles.native_display);
  EXPECT_EQ(view->GetEglGetProcAddress(), handles.get_proc_address);
  EXPECT_EQ(view->GetEglContext(), handles.context);
  EXPECT_EQ(view->GetEglOffscreenContext(), handles.offscreen_context);
}

TEST_F(ViewWrapperTest, ReturnsTheWindowsProperties) {
  View().SetDevicePixelRatio(1.5);
  View().SetWindowVisibility(false);
  View().SetWindowMode(cw::WindowMode::Fullscreen);
  View().SetWindowType(cw::WindowType::Popup);
  View().SetWindowSize(640, 480);
  View().SetWindowOrientation(cw::Orientation::Landscape);
  View().SetDeviceOrientation(cw::Orientation::LandscapeFlipped);
  View().SetKeyboardVisibility(true);
  const auto view = Make();
  EXPECT_EQ(view->GetDevicePixelRatio(), 1.5);
  EXPECT_FALSE(view->GetWindowVisibility());
  EXPECT_EQ(view->GetWindowMode(), cw::WindowMode::Fullscreen);
  EXPECT_EQ(view->GetWindowType(), cw::WindowType::Popup);
  EXPECT_EQ(view->GetWindowWidth(), 640);
  EXPECT_EQ(view->GetWindowHeight(), 480);
  EXPECT_EQ(view->GetWindowOrientation(), cw::Orientation::Landscape);
  EXPECT_EQ(view->GetDeviceOrientation(), cw::Orientation::LandscapeFlipped);
  EXPECT_TRUE(view->GetKeyboardVisibility());
}

TEST_F(ViewWrapperTest, SetsStatusBarAndBackground) {
  const auto view = Make();
  view->SetStatusBarVisibility(cw::StatusBarVisibility::Transparent);
  EXPECT_EQ(view->GetStatusBarVisibility(), cw::StatusBarVisibility::Transparent);
  view->SetBackgroundVisibility(false);
  EXPECT_FALSE(view->GetBackgroundVisibility());
}

TEST_F(ViewWrapperTest, CopiesTheThemeUnderALockThatItGivesBack) {
  View().SetTheme({"night", true, 0xFF000001, 0xFF000002, 0xFF000003, 0xFF000004});
  const std::optional<cw::Theme> theme = Make()->GetTheme();
  ASSERT_TRUE(theme);
  EXPECT_EQ(theme->name, "night");
  EXPECT_TRUE(theme->is_dark);
  EXPECT_EQ(theme->primary_color, 0xFF000001U);
  EXPECT_EQ(theme->secondary_color, 0xFF000002U);
  EXPECT_EQ(theme->highlight_color, 0xFF000003U);
  EXPECT_EQ(theme->background_color, 0xFF000004U);
  EXPECT_EQ(View().CountLocks(), 0U);
}

TEST_F(ViewWrapperTest, ReturnsTheWindowsPayload) {
  EXPECT_TRUE(Make()->GetWindowPayload().IsNull());
  const cw::EncodableValue payload(cw::EncodableList{1, "two"});
  View().SetWindowPayload(payload);
  EXPECT_EQ(Make()->GetWindowPayload(), payload);
  EXPECT_EQ(View().CountLocks(), 0U);
}

TEST_F(ViewWrapperTest, LogsThatLocksAreNotProvidedForThemeAndPayload) {
  const auto view = MakeWithout("LockResources");
  View().SetWindowPayload(cw::EncodableValue(1));
  EXPECT_THAT(StdoutOf([&view] { EXPECT_FALSE(view->GetTheme()); }),
              IsLogLine("error", NotProvided("LockResources")));
  EXPECT_THAT(StdoutOf([&view] { EXPECT_TRUE(view->GetWindowPayload().IsNull()); }),
              IsLogLine("error", NotProvided("LockResources")));
}

TEST_F(ViewWrapperTest, ChangesTheWindow) {
  const auto view = Make();
  view->MaximizeWindow();
  EXPECT_EQ(view->GetWindowMode(), cw::WindowMode::Maximized);
  view->MinimizeWindow();
  EXPECT_EQ(view->GetWindowMode(), cw::WindowMode::Minimized);
  EXPECT_FALSE(view->GetWindowVisibility());
  view->Activate();
  EXPECT_EQ(View().CountActivations(), 1U);
  EXPECT_TRUE(view->GetWindowVisibility());
  view->Fullscreen();
  EXPECT_EQ(view->GetWindowMode(), cw::WindowMode::Fullscreen);
}

TEST_F(ViewWrapperTest, OpensPopupWindows) {
  const cw::EncodableValue payload("for you");
  EXPECT_TRUE(Make()->CreatePopupWindow("dialog", payload));
  ASSERT_EQ(View().GetPopupWindows().size(), 1U);
  EXPECT_EQ(View().GetPopupWindows()[0].entry_point, "dialog");
  EXPECT_EQ(View().GetPopupWindows()[0].payload, payload);
}

TEST_F(ViewWrapperTest, RefusesAPopupWindowWithoutEntryPoint) {
  const auto view = Make();
  EXPECT_THAT(StdoutOf([&view] { EXPECT_FALSE(view->CreatePopupWindow("")); }),
              IsLogLine("error", "Expected not empty entry point"));
  EXPECT_TRUE(View().GetPopupWindows().empty());
}

TEST_F(ViewWrapperTest, LogsInItsOwnWordsThatPopupWindowsAreNotProvided) {
  const auto view = MakeWithout("CreatePopupWindow");
  for (const char* entry_point : {"dialog", ""}) {
    EXPECT_THAT(
        StdoutOf([&] { EXPECT_FALSE(view->CreatePopupWindow(entry_point)); }),
        IsLogLine("error", "Method \"CreatePopupWindow()\" is not provided by the loaded API."));
  }
}

TEST_F(ViewWrapperTest, ClosesTheWindowWithAPayload) {
  Make()->CloseWindow(cw::EncodableValue("saved"));
  ASSERT_TRUE(View().GetClosePayload());
  EXPECT_EQ(*View().GetClosePayload(), cw::EncodableValue("saved"));
}

struct Event {
  const char* name;
  std::uint64_t (ViewWrapper::*subscribe)(std::function<void()>) const;
  void (ViewWrapper::*unsubscribe)(std::uint64_t) const;
  void (*change)(veltra::host::View* view);
};

const Event kEvents[] = {
    {"WindowVisibilityChanged", &ViewWrapper::WindowVisibilityChangedSubscribe,
     &ViewWrapper::WindowVisibilityChangedUnsubscribe,
     [](auto* view) { view->SetWindowVisibility(!view->GetWindowVisibility()); }},
    {"WindowOrientationChanged", &ViewWrapper::WindowOrientationChangedSubscribe,
     &ViewWrapper::WindowOrientationChangedUnsubscribe,
     [](auto* view) {
       view->SetWindowOrientation(static_cast<cw::Orientation>(view->GetWindowOrientation() + 1));
     }},
    {"DeviceOrientationChanged", &ViewWrapper::DeviceOrientationChangedSubscribe,
     &ViewWrapper::DeviceOrientationChangedUnsubscribe,
     [](auto* view) {
       view->SetDeviceOrientation(static_cast<cw::Orientation>(view->GetDeviceOrientation() + 1));
     }},
    {"KeyboardVisibilityChanged", &ViewWrapper::KeyboardVisibilityChangedSubscribe,
     &ViewWrapper::KeyboardVisibilityChangedUnsubscribe,
     [](auto* view) { view->SetKeyboardVisibility(!view->GetKeyboardVisibility()); }},
    {"ThemeChanged", &ViewWrapper::ThemeChangedSubscribe, &ViewWrapper::ThemeChangedUnsubscribe,
     [](auto* view) { view->SetTheme({"other"}); }},
};

class ViewWrapperEventTest : public ViewWrapperTest, public testing::WithParamInterface<Event> {};

TEST_P(ViewWrapperEventTest, IsHeardUntilItIsUnsubscribed) {
  const auto view = Make();
  int calls = 0;
  veltra::test::Tracker tracker;
  const std::uint64_t id =
      (*view.*GetParam().subscribe)([&calls, tracked = tracker.Track()] { ++calls; });
  EXPECT_GT(id, 0U);
  GetParam().change(&View());
  EXPECT_EQ(calls, 0);
  RunPosted();
  EXPECT_EQ(calls, 1);
  GetParam().change(&View());
  RunPosted();
  EXPECT_EQ(calls, 2);
  (*view.*GetParam().unsubscribe)(id);
  EXPECT_TRUE(tracker.IsReleased());
  GetParam().change(&View());
  RunPosted();
  EXPECT_EQ(calls, 2);
}

TEST_P(ViewWrapperEventTest, MayUnsubscribeItself) {
  const auto view = Make();
  int calls = 0;
  std::uint64_t id = 0;
  id = (*view.*GetParam().subscribe)([&] {
    ++calls;
    (*view.*GetParam().unsubscribe)(id);
  });
  GetParam().change(&View());
  GetParam().change(&View());
  RunPosted();
  EXPECT_EQ(calls, 1);
}

TEST_P(ViewWrapperEventTest, IsReleasedWithTheEngine) {
  veltra::test::Tracker tracker;
  const auto view = Make();
  (*view.*GetParam().subscribe)([tracked = tracker.Track()] {});
  engine_.reset();
  EXPECT_TRUE(tracker.IsReleased());
  veltra::test::Tracker late;
  EXPECT_EQ((*view.*GetParam().subscribe)([tracked = late.Track()] {}), 0U);
  EXPECT_TRUE(late.IsReleased());
}

TEST_P(ViewWrapperEventTest, LogsThatSubscribingIsNotProvided) {
  const std::string name = std::string(GetParam().name) + "Subscribe";
  const auto view = MakeWithout(name);
  EXPECT_THAT(StdoutOf([&view] { EXPECT_EQ((*view.*GetParam().subscribe)([] {}), 0U); }),
              IsLogLine("error", NotProvided(name)));
}

TEST_P(ViewWrapperEventTest, LogsThatUnsubscribingIsNotProvided) {
  const std::string name = std::string(GetParam().name) + "Unsubscribe";
  const auto view = MakeWithout(name);
  EXPECT_THAT(StdoutOf([&view] { (*view.*GetParam().unsubscribe)(1); }),
              IsLogLine("error", NotProvided(name)));
}

INSTANTIATE_TEST_SUITE_P(All, ViewWrapperEventTest, testing::ValuesIn(kEvents),
                         [](const auto& event) { return std::string(event.param.name); });

struct MissingOperation {
  const char* name;
  bool (*returns_nothing)(const ViewWrapper& view);
};

class ViewWrapperMissingTest : public ViewWrapperTest,
                               public testing::WithParamInterface<MissingOperation> {};

TEST_P(ViewWrapperMissingTest, IsLoggedAndReturnsNothing) {
  const auto view = MakeWithout(GetParam().name);
  EXPECT_THAT(StdoutOf([&view] { EXPECT_TRUE(GetParam().returns_nothing(*view)); }),
              IsLogLine("error", NotProvided(GetParam().name)));
}

const MissingOperation kOperations[] = {
    {"GetEglConfig", [](const auto& view) { return view.GetEglConfig() == nullptr; }},
    {"GetEglDisplay", [](const auto& view) { return view.GetEglDisplay() == nullptr; }},
    {"GetNativeDisplay", [](const auto& view) { return view.GetNativeDisplay() == nullptr; }},
    {"GetEglGetProcAddress",
     [](const auto& view) { return view.GetEglGetProcAddress() == nullptr; }},
    {"GetEglContext", [](const auto& view) { return view.GetEglContext() == nullptr; }},
    {"GetEglOffscreenContext",
     [](const auto& view) { return view.GetEglOffscreenContext() == nullptr; }},
    {"GetDevicePixelRatio", [](const auto& view) { return view.GetDevicePixelRatio() == 1.0; }},
    {"GetWindowVisibility", [](const auto& view) { return !view.GetWindowVisibility(); }},
    {"GetWindowMode",
     [](const auto& view) { return view.GetWindowMode() == cw::WindowMode::Normal; }},
    {"GetWindowType",
     [](const auto& view) { return view.GetWindowType() == cw::WindowType::Main; }},
    {"GetWindowWidth", [](const auto& view) { return view.GetWindowWidth() == 0; }},
    {"GetWindowHeight", [](const auto& view) { return view.GetWindowHeight() == 0; }},
    {"GetWindowOrientation",
     [](const auto& view) { return view.GetWindowOrientation() == cw::Orientation::Unknown; }},
    {"GetDeviceOrientation",
     [](const auto& view) { return view.GetDeviceOrientation() == cw::Orientation::Unknown; }},
    {"GetStatusBarVisibility",
     [](const auto& view) {
       return view.GetStatusBarVisibility() == cw::StatusBarVisibility::Hidden;
     }},
    {"SetStatusBarVisibility",
     [](const auto& view) {
       return view.SetStatusBarVisibility(cw::StatusBarVisibility::Hidden), true;
     }},
    {"GetKeyboardVisibility", [](const auto& view) { return !view.GetKeyboardVisibility(); }},
    {"GetBackgroundVisibility", [](const auto& view) { return !view.GetBackgroundVisibility(); }},
    {"SetBackgroundVisibility",
     [](const auto& view) { return view.SetBackgroundVisibility(true), true; }},
    {"GetTheme", [](const auto& view) { return !view.GetTheme(); }},
    {"GetWindowPayload", [](const auto& view) { return view.GetWindowPayload().IsNull(); }},
    {"MaximizeWindow", [](const auto& view) { return view.MaximizeWindow(), true; }},
    {"MinimizeWindow", [](const auto& view) { return view.MinimizeWindow(), true; }},
    {"Fullscreen", [](const auto& view) { return view.Fullscreen(), true; }},
    {"Activate", [](const auto& view) { return view.Activate(), true; }},
    {"CloseWindow", [](const auto& view) { return view.CloseWindow(), true; }},
};

INSTANTIATE_TEST_SUITE_P(All, ViewWrapperMissingTest, testing::ValuesIn(kOperations),
                         [](const auto& operation) { return std::string(operation.param.name); });

TEST_F(ViewWrapperTest, SizeAloneDecidesWhatIsProvided) {
  veltra::host::EngineOptions options;
  options.table_sizes.view = offsetof(FlutterVeltraViewProcTable, GetWindowVisibility) + 7;
  Restart(options);
  EXPECT_THAT(StdoutOf([this] { EXPECT_FALSE(Make()->GetWindowVisibility()); }),
              IsLogLine("error", NotProvided("GetWindowVisibility")));
  ++options.table_sizes.view;
  Restart(options);
  EXPECT_EQ(StdoutOf([this] { EXPECT_TRUE(Make()->GetWindowVisibility()); }), "");
}

}  // namespace
