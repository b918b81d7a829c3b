#include "kept_memory.h"

#include <qt/internal/start_timer.h>
#include <quarn/internal/text_room.h>

#include <QMetaObject>
#include <QTimer>
#include <atomic>
#include <chrono>
#include <memory>
#include <new>

namespace tarv::details {
namespace {

using quarn::TextRoom;

std::atomic<bool> is_watched{false};

// Held by the event that looks next. When that never comes, because its object or its event loop
// goes, what is kept goes with it.
class Watch {
 public:
  Watch() = default;
  ~Watch() {
    if (is_on_) {
      TextRoom::Get().GiveBack();
      is_watched = false;
    }
  }
  Watch(const Watch&) = delete;
  Watch& operator=(const Watch&) = delete;

  void End() {
    is_on_ = false;
    is_watched = false;
  }

 private:
  bool is_on_ = true;
};

void Look(QObject* context, const std::shared_ptr<Watch>& watch);

// The timer is the object's child, and goes with it: QTimer::singleShot() would hold the watch until
// the time has passed.
void LookAfter(std::chrono::milliseconds time, QObject* context,
               const std::shared_ptr<Watch>& watch) {
  auto timer = std::make_unique<QTimer>(context);
  timer->setSingleShot(true);
  timer->callOnTimeout(timer.get(), [timer = timer.get(), context, watch] {
    timer->deleteLater();
    Look(context, watch);
  });
  qt::details::StartTimer(*timer, time);
  timer.release();  // NOLINT(bugprone-unused-return-value): its parent has it
}

void Look(QObject* context, const std::shared_ptr<Watch>& watch) {
  if (const auto left = TextRoom::Get().GiveBackIdle()) {
    try {
      LookAfter(std::chrono::ceil<std::chrono::milliseconds>(*left), context, watch);
    } catch (const std::bad_alloc&) {
      // The watch ends with the event that holds it, and memory is given back when it is wanted.
    }
    return;
  }
  watch->End();
  // A thread that has begun to send in between took the watch for one that goes on.
  if (TextRoom::Get().GiveBackIdle()) {
    GiveBackWhenIdle(context);
  }
}

}  // namespace

void GiveBackWhenIdle(QObject* context) noexcept {
  if (is_watched.exchange(true)) {
    return;
  }
  try {
    QMetaObject::invokeMethod(
        context, [context, watch = std::make_shared<Watch>()] { Look(context, watch); },
        Qt::QueuedConnection);
  } catch (const std::bad_alloc&) {
    TextRoom::Get().GiveBack();
    is_watched = false;
  }
}

}  // namespace tarv::details
