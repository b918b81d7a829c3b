#include <vorpc/qt/utils.h>

#include <QByteArray>
#include <QJsonDocument>
#include <utility>

#include "json_reader.h"
#include "json_writer.h"

namespace vorpc::qt {

using details::JsonReader;
using details::JsonWriter;

bool EncodableToJson(const cw::EncodableValue& value, QJsonValue& out) {
  QJsonValue json(QJsonValue::Undefined);
  const bool success = JsonWriter().Convert(value, json);
  out = json;
  return success;
}

bool EncodableMapToJsonObject(const cw::EncodableMap& map, QJsonObject& out) {
  QJsonObject object;
  const bool success = JsonWriter().Convert(map, object);
  out = object;
  return success;
}

QString EncodableMapToJsonString(const cw::EncodableMap& map) {
  QJsonObject object;
  if (!EncodableMapToJsonObject(map, object)) {
    return {};
  }
  const QByteArray text = QJsonDocument(object).toJson(QJsonDocument::Compact);
  return text.isNull() ? QString() : QString::fromUtf8(text);
}

bool JsonToEncodable(const QJsonValue& json, cw::EncodableValue& out) {
  cw::EncodableValue value;
  const bool success = JsonReader().Convert(json, value);
  out = std::move(value);
  return success;
}

bool JsonObjectToEncodableMap(const QJsonObject& object, cw::EncodableMap& out) {
  cw::EncodableMap map;
  const bool success = JsonReader().Convert(object, map);
  out = std::move(map);
  return success;
}

}  // namespace vorpc::qt
