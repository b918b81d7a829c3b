// Engines for tests: #include "engine_fixture.h".
#ifndef EMBEDDER_TESTS_SUPPORT_ENGINE_FIXTURE_H
#define EMBEDDER_TESTS_SUPPORT_ENGINE_FIXTURE_H

#include <gtest/gtest.h>
#include <veltra/host/engine.h>

#include <QCoreApplication>
#include <memory>
#include <string>
#include <utility>

namespace veltra::test {

// The one application of the test process.
inline void MakeApplication() {
  static int argc = 1;
  static char name[] = "embedder_test";
  static char* argv[] = {name, nullptr};
  static const QCoreApplication kApplication(argc, argv);
}

// A test with an engine, which it may end early.
class EngineTest : public testing::Test {
 protected:
  EngineTest() { Restart({}); }

  // Ends the engine and makes another one.
  void Restart(host::EngineOptions options) {
    MakeApplication();
    engine_.reset();
    engine_ = std::make_unique<host::Engine>(std::move(options));
  }

  // Runs the event loop until what is posted now has been delivered.
  void RunPosted() {
    bool arrived = false;
    QMetaObject::invokeMethod(
        QCoreApplication::instance(), [&arrived] { arrived = true; }, Qt::QueuedConnection);
    ASSERT_TRUE(RunUntil([&arrived] { return arrived; }));
  }

  bool RunUntil(const std::function<bool()>& condition) { return engine_->RunUntil(condition); }

  std::unique_ptr<host::Engine> engine_;
};

// Counts how often copies of it were destroyed for good: for what must be released.
class Tracker {
 public:
  std::shared_ptr<void> Track() {
    auto tracked = std::make_shared<int>(0);
    tracked_ = tracked;
    return tracked;
  }
  bool IsReleased() const { return tracked_.expired(); }

 private:
  std::weak_ptr<void> tracked_;
};

}  // namespace veltra::test

#endif  // EMBEDDER_TESTS_SUPPORT_ENGINE_FIXTURE_H
