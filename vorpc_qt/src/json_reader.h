// From JSON to values.
#ifndef VORPC_QT_SRC_JSON_READER_H
#define VORPC_QT_SRC_JSON_READER_H

#include <cw/encodable_value.h>
#include <quarn/logger.h>
#include <quarn/numbers.h>
#include <quarn/strings.h>

#include <QJsonArray>
#include <QJsonObject>
#include <QJsonValue>
#include <cstdint>
#include <limits>
#include <string>
#include <utility>
#include <vector>

#include "conversion.h"

namespace vorpc::qt::details {

// An integer as the smallest kind that holds it.
inline cw::EncodableValue ToSmallestInteger(std::int64_t value) {
  if (value >= std::numeric_limits<std::int32_t>::min() &&
      value <= std::numeric_limits<std::int32_t>::max()) {
    return static_cast<std::int32_t>(value);
  }
  return value;
}

// Reads an element of a typed list; false when the element does not fit it.
inline bool ReadNumber(const QJsonValue& json, std::int64_t& out) {
  return json.isDouble() && quarn::numbers::SafeDoubleToInt64(json.toDouble(), out);
}

inline bool ReadNumber(const QJsonValue& json, std::int32_t& out) {
  std::int64_t wide = 0;
  if (!ReadNumber(json, wide) || wide < std::numeric_limits<std::int32_t>::min() ||
      wide > std::numeric_limits<std::int32_t>::max()) {
    return false;
  }
  out = static_cast<std::int32_t>(wide);
  return true;
}

inline bool ReadNumber(const QJsonValue& json, double& out) {
  out = json.toDouble();
  return json.isDouble();
}

// Reads the array as a typed list; false at the first element that does not fit.
template <class Number>
bool ReadNumbers(const QJsonArray& array, cw::EncodableValue& out) {
  std::vector<Number> numbers;
  numbers.reserve(static_cast<std::size_t>(array.size()));
  for (const QJsonValue& json : array) {
    Number number{};
    if (!ReadNumber(json, number)) {
      return false;
    }
    numbers.push_back(number);
  }
  out = std::move(numbers);
  return true;
}

// Converts one JSON value with all that it holds. Outputs are left alone on failure.
class JsonReader {
 public:
  bool Convert(const QJsonValue& json, cw::EncodableValue& out) {
    switch (json.type()) {
      case QJsonValue::Null:
        out = nullptr;
        return true;
      case QJsonValue::Bool:
        out = json.toBool();
        return true;
      case QJsonValue::Double:
        out = ConvertNumber(json.toDouble());
        return true;
      case QJsonValue::String:
        out = ConvertText(json.toString().toStdString());
        return true;
      case QJsonValue::Array:
        return Convert(json.toArray(), out);
      case QJsonValue::Object:
        return ConvertObject(json.toObject(), out);
      case QJsonValue::Undefined:
        break;
    }
    return false;
  }

  bool Convert(const QJsonObject& object, cw::EncodableMap& out) {
    const Level level(depth_);
    if (level.IsTooDeep()) {
      return false;
    }
    cw::EncodableMap map;
    for (auto entry = object.begin(); entry != object.end(); ++entry) {
      cw::EncodableValue value;
      if (!Convert(entry.value(), value)) {
        QUARN_LOG_ERROR() << "The JSON value cannot be represented as a EncodableValue";
        return false;
      }
      if (!map.emplace(entry.key().toStdString(), std::move(value)).second) {
        WarnOfMergedKeys(entry.key());
      }
    }
    out = std::move(map);
    return true;
  }

 private:
  static cw::EncodableValue ConvertNumber(double number) {
    std::int64_t integer = 0;
    if (quarn::numbers::SafeDoubleToInt64(number, integer)) {
      return ToSmallestInteger(integer);
    }
    return number;
  }

  static cw::EncodableValue ConvertText(std::string&& text) {
    std::int64_t integer = 0;
    if (quarn::strings::ParseInt(text, integer)) {
      return ToSmallestInteger(integer);
    }
    return std::move(text);
  }

  bool Convert(const QJsonArray& array, cw::EncodableValue& out) {
    return ReadNumbers<std::int32_t>(array, out) || ReadNumbers<std::int64_t>(array, out) ||
           ReadNumbers<double>(array, out) || ConvertList(array, out);
  }

  bool ConvertList(const QJsonArray& array, cw::EncodableValue& out) {
    const Level level(depth_);
    if (level.IsTooDeep()) {
      return false;
    }
    cw::EncodableList list;
    list.reserve(static_cast<std::size_t>(array.size()));
    for (const QJsonValue& json : array) {
      if (!Convert(json, list.emplace_back())) {
        return false;
      }
    }
    out = std::move(list);
    return true;
  }

  bool ConvertObject(const QJsonObject& object, cw::EncodableValue& out) {
    cw::EncodableMap map;
    if (!Convert(object, map)) {
      return false;
    }
    out = std::move(map);
    return true;
  }

  std::size_t depth_ = 0;
};

}  // namespace vorpc::qt::details

#endif  // VORPC_QT_SRC_JSON_READER_H
