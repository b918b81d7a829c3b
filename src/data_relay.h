// The shortcut for texts that a platform's runtime manager may or may not have.
#ifndef TARV_SRC_DATA_RELAY_H
#define TARV_SRC_DATA_RELAY_H

#include <RuntimeManager/TaskMessaging.h>

#include <QByteArray>
#include <QObject>
#include <functional>
#include <string_view>

namespace tarv::details {

// A TaskMessaging with the shortcut sends and gives the text of the message {"data": text} as such:
// without a JSON object, which would copy the text several times. A relay belongs to the object
// that it listens to, and dies with it.
class DataRelay final : public QObject {
  Q_OBJECT

 public:
  // May take or clear the text.
  using Handler = std::function<void(QByteArray&)>;

  // Calls `handler` directly for each text, in UTF-8, that `messaging` gives by the shortcut. What
  // comes by messageReceived() is another matter.
  static void Listen(RuntimeManager::TaskMessaging* messaging, Handler handler);

  // Sends `text`, which is UTF-8, by the shortcut. False when there is none.
  static bool Send(RuntimeManager::TaskMessaging* messaging, std::string_view text);

 private:
  DataRelay(QObject* parent, Handler handler);

  Q_SLOT void Deliver(QByteArray& text);

  const Handler handler_;
};

}  // namespace tarv::details

#endif  // TARV_SRC_DATA_RELAY_H
