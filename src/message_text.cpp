#include "message_text.h"

#include <quarn/internal/text_room.h>
#include <quarn/logger.h>

#include <QJsonValue>
#include <QString>

#include "kept_memory.h"
#include "optional_members.h"

namespace tarv::details {
namespace {

// The member of the JSON object on the wire that holds a message's text.
QString EnvelopeMember() { return QStringLiteral("data"); }

// The longest text that surely fits a QString, which counts in int and makes room for two bytes for
// every one of the text, in less than 2 GiB with its header.
constexpr std::size_t kLongestText = (std::size_t{1} << 30) - 64;

// A template, so that the platform that lacks sendData() is not asked for it.
template <class Messaging>
void Send(Messaging& messaging, const char* text, int size) {
  if constexpr (kHas<SendData, Messaging>) {
    // Not a copy: the text outlives the call.
    messaging.sendData(QByteArray::fromRawData(text, size));
  } else {
    messaging.sendMessage({{EnvelopeMember(), QString::fromUtf8(text, size)}});
  }
}

}  // namespace

bool SendText(RuntimeManager::TaskMessaging& messaging, std::string_view text) {
  if (text.size() > kLongestText) {
    QUARN_LOG_ERROR() << "Could not send a message of " << text.size() << " bytes: it may have "
                      << kLongestText << ". Send it in parts.";
    return false;
  }
  Send(messaging, text.data(), static_cast<int>(text.size()));
  if (text.size() >= quarn::TextRoom::kLarge) {
    GiveBackWhenIdle(&messaging);
  }
  return true;
}

std::optional<QByteArray> TextOf(const QJsonObject& object) {
  const QJsonValue data = object.value(EnvelopeMember());
  if (!data.isString()) {
    return std::nullopt;
  }
  return data.toString().toUtf8();
}

}  // namespace tarv::details
