#include "data_relay.h"

#include <QMetaObject>
#include <utility>

namespace tarv::details {

DataRelay::DataRelay(QObject* parent, Handler handler)
    : QObject(parent), handler_(std::move(handler)) {}

void DataRelay::Listen(RuntimeManager::TaskMessaging* messaging, Handler handler) {
  const int index = messaging->metaObject()->indexOfSignal("dataReceived(QByteArray&)");
  if (index < 0) {
    return;
  }
  auto* const relay = new DataRelay(messaging, std::move(handler));
  const int slot = staticMetaObject.indexOfSlot("Deliver(QByteArray&)");
  QMetaObject::connect(messaging, index, relay, slot, Qt::DirectConnection);
}

bool DataRelay::Send(RuntimeManager::TaskMessaging* messaging, std::string_view text) {
  static const int kIndex =
      RuntimeManager::TaskMessaging::staticMetaObject.indexOfMethod("sendData(QByteArray)");
  if (kIndex < 0) {
    return false;
  }
  // Not a copy: the text outlives the call.
  auto bytes = QByteArray::fromRawData(text.data(), static_cast<int>(text.size()));
  void* arguments[] = {nullptr, &bytes};
  QMetaObject::metacall(messaging, QMetaObject::InvokeMetaMethod, kIndex, arguments);
  return true;
}

void DataRelay::Deliver(QByteArray& text) {
  // A copy: the handler may end the sender, and with it this relay.
  const Handler handler = handler_;
  handler(text);
}

}  // namespace tarv::details
