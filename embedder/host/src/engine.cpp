#include <veltra/host/engine.h>

#include <QCoreApplication>
#include <QElapsedTimer>
#include <QTimer>
#include <stdexcept>
#include <tuple>
#include <utility>

#include "engine_state.h"
#include "table_filler.h"
#include "tables.h"

namespace veltra::host {
namespace {

void SetRegistrarDestroyedCallback(_FlutterVeltraEngine* engine,
                                   FlutterVeltraRegistrarDestroyedCallback callback) {
  if (const auto state = EngineState::FromRef(engine)) {
    state->SetRegistrarDestroyedCallback(callback);
  }
}

bool RunsOnPlatformThread(_FlutterVeltraEngine* engine) {
  const auto state = EngineState::FromRef(engine);
  return state && state->GetThread().IsCurrent();
}

}  // namespace

// ---- The state ----------------------------------------------------------------------------------

EngineState::EngineState(EngineOptions options, PrivateTag)
    : Object(quarn::IDispatcher::CreateEmpty()),
      options_(std::move(options)),
      thread_(std::make_shared<PlatformThread>()),
      parts_(std::make_unique<Application>(options_, thread_), std::make_unique<Messenger>(this),
             std::make_unique<View>(this), std::make_unique<Textures>(thread_)) {}

std::shared_ptr<EngineState> EngineState::Create(EngineOptions options) {
  if (QCoreApplication::instance() == nullptr) {
    throw std::logic_error(
        "veltra::host::Engine: make a QCoreApplication first, whose event loop "
        "will drive the engine");
  }
  return Object::Create(std::move(options), PrivateTag());
}

FlutterVeltraPluginContext* EngineState::MakeContext(std::size_t size) {
  using Context = FlutterVeltraPluginContext;
  Context* const context = &contexts_.emplace_back();
  TableFiller<Context>(context, std::min(size, sizeof(Context)), options_.table_sizes.context,
                       options_)
      .Fill("api_version", &Context::api_version, FLUTTER_VELTRA_API_VERSION)
      .Fill("engine", &Context::engine, GetRef())
      .Fill("ApplicationProcTableLoad", &Context::ApplicationProcTableLoad, &LoadApplicationTable)
      .Fill("SetRegistrarDestroyedCallback", &Context::SetRegistrarDestroyedCallback,
            &host::SetRegistrarDestroyedCallback)
      .Fill("ViewProcTableLoad", &Context::ViewProcTableLoad, &LoadViewTable)
      .Fill("TextureProcTableLoad", &Context::TextureProcTableLoad, &LoadTextureTable)
      .Fill("RunsOnPlatformThread", &Context::RunsOnPlatformThread, &host::RunsOnPlatformThread)
      .Fill("MessengerProcTableLoad", &Context::MessengerProcTableLoad, &LoadMessengerTable);
  return context;
}

void EngineState::Post(const std::function<void(EngineState&)>& action) {
  thread_->Post([weak_engine = weak_from_this(), action] {
    if (const auto engine = weak_engine.lock()) {
      action(*engine);
    }
  });
}

void EngineState::SetRegistrarDestroyedCallback(FlutterVeltraRegistrarDestroyedCallback callback) {
  if (callback != nullptr) {
    on_destroyed_.push_back(callback);
  }
}

void EngineState::End() {
  // Replies first, while the plug-ins that wait for them are there.
  Get<Messenger>().End();
  // A plug-in that dies may make a new registrar, which is told, too.
  while (!on_destroyed_.empty()) {
    for (const auto callback : std::exchange(on_destroyed_, {})) {
      callback(GetRef());
    }
  }
  Get<Messenger>().Clear();
  Get<View>().Clear();
  Get<Textures>().Clear();
  thread_->End();
  Unregister();
}

// ---- The engine ---------------------------------------------------------------------------------

Engine::Engine(EngineOptions options) : state_(EngineState::Create(std::move(options))) {}
Engine::~Engine() { state_->End(); }

FlutterVeltraPluginContext* Engine::MakeContext(std::size_t size) {
  return state_->MakeContext(size);
}

_FlutterVeltraEngine* Engine::GetRef() const { return state_->GetRef(); }
Application& Engine::GetApplication() { return state_->Get<Application>(); }
Messenger& Engine::GetMessenger() { return state_->Get<Messenger>(); }
View& Engine::GetView() { return state_->Get<View>(); }
Textures& Engine::GetTextures() { return state_->Get<Textures>(); }

bool Engine::RunUntil(const std::function<bool()>& condition, std::chrono::milliseconds timeout) {
  constexpr std::chrono::milliseconds kLookAgain(20);  // for what changes without an event
  QTimer wake_up;
  wake_up.start(kLookAgain);
  QElapsedTimer elapsed;
  elapsed.start();
  while (!condition()) {
    if (elapsed.hasExpired(timeout.count())) {
      return false;
    }
    QCoreApplication::processEvents(QEventLoop::AllEvents | QEventLoop::WaitForMoreEvents);
    QCoreApplication::sendPostedEvents(nullptr, QEvent::DeferredDelete);
  }
  return true;
}

}  // namespace veltra::host
