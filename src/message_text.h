// The text of a message, on its way into the envelope and out of it.
#ifndef TARV_SRC_MESSAGE_TEXT_H
#define TARV_SRC_MESSAGE_TEXT_H

#include <RuntimeManager/TaskMessaging.h>
#include <quarn/internal/known_length.h>

#include <QByteArray>
#include <QJsonObject>
#include <cstddef>
#include <optional>
#include <string_view>

#include "received_texts.h"

namespace tarv::details {

// Sends the JSON object that carries `text`, which is UTF-8, as its member "data". False, after a
// line of the log, when the text is longer than a message may be. Any thread.
bool SendText(RuntimeManager::TaskMessaging& messaging, std::string_view text);

// The text, in UTF-8, that a received object carries; nothing when it carries none.
std::optional<QByteArray> TextOf(const QJsonObject& object);

// Hands a text in UTF-8, without a NUL, to `listener`, in a chunk of its own. A large one is taken.
template <class Listener>
void DeliverText(QByteArray& text, ReceivedTexts& texts, const Listener& listener) {
  const auto size = static_cast<std::size_t>(text.size());
  const ReceivedTexts::Text kept = texts.Keep(text);
  const quarn::KnownLength known(quarn::TextWay::kIn, {kept.message, size});
  listener.OnMessage(kept.message, kept.chunk);
}

// The same for the text of a JSON object, in which a NUL may stand: there it ends for C.
template <class Listener>
void DeliverTextOf(const QJsonObject& object, ReceivedTexts& texts, const Listener& listener) {
  if (auto text = TextOf(object)) {
    const ReceivedTexts::Text kept = texts.Keep(*text);
    listener.OnMessage(kept.message, kept.chunk);
  }
}

}  // namespace tarv::details

#endif  // TARV_SRC_MESSAGE_TEXT_H
