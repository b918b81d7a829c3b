// The text of a message, on its way into the envelope and out of it.
#ifndef TARV_SRC_MESSAGE_TEXT_H
#define TARV_SRC_MESSAGE_TEXT_H

#include <RuntimeManager/TaskMessaging.h>
#include <quarn/resources_cache.h>

#include <QByteArray>
#include <QJsonObject>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string_view>

namespace tarv::details {

// Sends the JSON object that carries `text`, which is UTF-8, as its member "data". False, after a
// line of the log, when the text is longer than a message may be. Any thread.
bool SendText(RuntimeManager::TaskMessaging& messaging, std::string_view text);

// The text, in UTF-8, that a received object carries; nothing when it carries none.
std::optional<QByteArray> TextOf(const QJsonObject& object);

// A text of that many bytes or more is not kept twice.
constexpr int kLargeText = 64 << 10;

// Hands a text in UTF-8, in a chunk of its own, to `listener`. A large original is given up first:
// only one of the two is in memory while the message is dealt with.
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

}  // namespace tarv::details

#endif  // TARV_SRC_MESSAGE_TEXT_H
