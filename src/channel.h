// What both ends of a task's channel share: the envelope of a message, and the ownership of the
// platform's objects.
#ifndef TARV_SRC_CHANNEL_H
#define TARV_SRC_CHANNEL_H

#include <RuntimeManager/TaskMessaging.h>
#include <quarn/logger.h>
#include <quarn/resources_cache.h>

#include <QByteArray>
#include <QJsonObject>
#include <QObject>
#include <QString>
#include <cstddef>
#include <memory>
#include <string>
#include <string_view>

#include "data_relay.h"

namespace tarv::details {

// The member of the JSON object on the wire that holds a message's text.
inline QString EnvelopeMember() { return QStringLiteral("data"); }

// The longest text that surely fits a QString, which counts in int and makes room for two bytes for
// every one of the text, in less than 2 GiB with its header.
constexpr std::size_t kLongestText = (std::size_t{1} << 30) - 64;

// Sends the JSON object that carries `text`, which is UTF-8. False, after a line of the log, when
// the text is longer than a message may be.
inline bool SendText(RuntimeManager::TaskMessaging* messaging, std::string_view text) {
  if (text.size() > kLongestText) {
    QUARN_LOG_ERROR() << "Could not send a message of " << text.size() << " bytes: it may have "
                      << kLongestText << ". Send it in parts.";
    return false;
  }
  if (!DataRelay::Send(messaging, text)) {
    messaging->sendMessage(
        {{EnvelopeMember(), QString::fromUtf8(text.data(), static_cast<int>(text.size()))}});
  }
  return true;
}

// A text of that many bytes or more is not kept twice.
constexpr int kLargeText = 64 << 10;

// Hands a text in UTF-8, in a chunk of its own, to `listener`. A large original is given up first:
// only one of the two shall be there while the message is dealt with.
template <class Listener>
void DeliverText(QByteArray& text, quarn::ResourcesCache& cache, const Listener* listener) {
  if (listener == nullptr) {
    return;
  }
  const std::uint64_t chunk = cache.CreateChunk();
  const char* const cached =
      cache.AppendStr(chunk, {text.constData(), static_cast<std::size_t>(text.size())});
  if (text.size() >= kLargeText) {
    text.clear();
  }
  listener->OnMessage(cached, chunk);
}

// The same for the text of an object. An object that carries no text is dropped.
template <class Listener>
void DeliverMessage(const QJsonObject& object, quarn::ResourcesCache& cache,
                    const Listener* listener) {
  const QJsonValue data = object.value(EnvelopeMember());
  if (data.isString()) {
    QByteArray text = data.toString().toUtf8();
    DeliverText(text, cache, listener);
  }
}

// Ends a platform object: nothing it still emits is heard, and it dies on its event loop, so it may
// be ended from inside its own signals.
struct DisconnectAndDeleteLater {
  void operator()(QObject* object) const {
    object->disconnect();
    object->deleteLater();
  }
};

template <class T>
using PlatformPtr = std::unique_ptr<T, DisconnectAndDeleteLater>;

}  // namespace tarv::details

#endif  // TARV_SRC_CHANNEL_H
