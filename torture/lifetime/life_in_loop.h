// A life whose news come from a Qt event loop.
#ifndef TORTURE_LIFETIME_LIFE_IN_LOOP_H
#define TORTURE_LIFETIME_LIFE_IN_LOOP_H

#include <QCoreApplication>
#include <QEventLoop>
#include <QTimer>

#include "life.h"

namespace tarv::torture {

class LifeInLoop : public Life {
 public:
  // A nested event loop in which everything that may arrive does.
  void RunNestedLoop() {
    QEventLoop loop;
    QTimer::singleShot(0, &loop, [this] { ArriveInNestedLoop(); });
    QTimer::singleShot(0, &loop, [this] { ArriveInNestedLoop(); });
    QTimer::singleShot(1, &loop, [&loop] { loop.quit(); });
    loop.exec();
  }

 protected:
  virtual void ArriveInNestedLoop() { ArriveEverywhere(); }

  // One turn of the loop. What is deleted later is gone after it.
  void Turn(const Move& move) override {
    QEventLoop loop;
    QTimer::singleShot(0, &loop, [&] {
      Survive(move);
      loop.quit();
    });
    loop.exec();
    QCoreApplication::sendPostedEvents(nullptr, QEvent::DeferredDelete);
  }
};

}  // namespace tarv::torture

#endif  // TORTURE_LIFETIME_LIFE_IN_LOOP_H
