#include "error_relay.h"

#include <QByteArray>
#include <QMetaMethod>
#include <QMetaObject>
#include <utility>

namespace tarv::details {
namespace {

// moc spells the argument's type as the platform's header does.
int FindSignal(const QMetaObject& meta, const QByteArray& name) {
  const int qualified = meta.indexOfSignal(name + "(RuntimeManager::Error)");
  return qualified >= 0 ? qualified : meta.indexOfSignal(name + "(Error)");
}

}  // namespace

ErrorRelay::ErrorRelay(QObject* sender, Handler handler)
    : QObject(sender), handler_(std::move(handler)) {}

void ErrorRelay::Listen(QObject* sender, const char* signal, Handler handler) {
  const int index = FindSignal(*sender->metaObject(), signal);
  if (index < 0) {
    return;
  }
  auto* const relay = new ErrorRelay(sender, std::move(handler));
  const int slot = staticMetaObject.indexOfSlot("Deliver(RuntimeManager::Error)");
  QMetaObject::connect(sender, index, relay, slot, Qt::DirectConnection);
}

void ErrorRelay::Deliver(const RuntimeManager::Error& error) {
  // A copy: the handler may end the sender, and with it this relay.
  const Handler handler = handler_;
  handler(error);
}

}  // namespace tarv::details
