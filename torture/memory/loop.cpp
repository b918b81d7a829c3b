#include "loop.h"

#include <QCoreApplication>
#include <QDeadlineTimer>
#include <QEvent>
#include <QEventLoop>
#include <new>

#include "failing_memory.h"

namespace tarv::torture {
namespace {

constexpr int kLookMs = 2;

}  // namespace

Loop::Loop() { wake_.start(kLookMs); }

void Loop::Turn() {
  try {
    QCoreApplication::processEvents(QEventLoop::WaitForMoreEvents);
    QCoreApplication::sendPostedEvents(nullptr, QEvent::DeferredDelete);
  } catch (const std::bad_alloc&) {
    ++escaped_exceptions_;
    TellLatestFailure();
  }
}

bool Loop::RunUntil(const std::function<bool()>& condition, std::chrono::milliseconds limit) {
  const QDeadlineTimer deadline(limit);
  while (true) {
    {
      const OwnMemory own;
      if (condition()) {
        return true;
      }
    }
    if (deadline.hasExpired()) {
      return false;
    }
    Turn();
  }
}

}  // namespace tarv::torture
