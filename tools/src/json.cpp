#include "json.h"

#include <vorpc/qt/utils.h>

#include <QtCore/QJsonArray>
#include <QtCore/QJsonDocument>
#include <QtCore/QJsonObject>
#include <algorithm>

#include "captured_log.h"
#include "typed_json.h"

namespace tarvctl {
namespace {

// What Qt indents the elements of an array with.
constexpr int kIndent = 4;

}  // namespace

// Qt's documents are arrays or objects: anything else travels in an array of one.
QJsonValue ParseJson(std::string_view text, const std::string& what) {
  QByteArray wrapped = "[";
  wrapped.append(text.data(), static_cast<int>(text.size())).append("\n]");
  QJsonParseError error;
  const QJsonArray array = QJsonDocument::fromJson(wrapped, &error).array();
  if (error.error != QJsonParseError::NoError) {
    // The parser looks past the end of what breaks off.
    const auto offset = std::min(static_cast<std::size_t>(error.offset - 1), text.size());
    throw JsonError(what + " is no JSON: " + error.errorString().toStdString() + " at byte " +
                    std::to_string(offset) + " of " + std::to_string(text.size()));
  }
  if (array.size() != 1) {
    throw JsonError(what + " must be one JSON value, and is " + std::to_string(array.size()));
  }
  return array[0];
}

std::string ToText(const QJsonValue& json, bool pretty) {
  QByteArray text = QJsonDocument(QJsonArray{json})
                        .toJson(pretty ? QJsonDocument::Indented : QJsonDocument::Compact);
  if (!pretty) {
    return text.mid(1, text.size() - 2).toStdString();
  }
  text = text.mid(2, text.size() - 5).replace("\n" + QByteArray(kIndent, ' '), "\n");
  return text.mid(kIndent).toStdString();
}

cw::EncodableValue FromJson(const QJsonValue& json, bool typed) {
  if (typed) {
    return FromTypedJson(json);
  }
  const CapturedLog ignored;
  cw::EncodableValue value;
  if (!vorpc::qt::JsonToEncodable(json, value)) {
    throw JsonError("this JSON nests too deep for a message: " + ToText(json, false).substr(0, 80));
  }
  return value;
}

QJsonValue ToJson(const cw::EncodableValue& value, bool typed) {
  QJsonValue json;
  if (typed) {
    return ToTypedJson(value);
  }
  const CapturedLog ignored;
  if (!vorpc::qt::EncodableToJson(value, json)) {
    throw JsonError(
        "JSON does not hold this value (an infinity, NaN, or a key that is no text): "
        "--typed shows it");
  }
  return json;
}

}  // namespace tarvctl
