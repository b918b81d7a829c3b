// From values to JSON.
#ifndef VORPC_QT_SRC_JSON_WRITER_H
#define VORPC_QT_SRC_JSON_WRITER_H

#include <cw/encodable_value.h>
#include <quarn/buffer.h>
#include <quarn/logger.h>

#include <QJsonArray>
#include <QJsonObject>
#include <QJsonValue>
#include <QString>
#include <cmath>
#include <cstdint>
#include <limits>
#include <string>
#include <string_view>
#include <utility>
#include <variant>
#include <vector>

#include "conversion.h"

namespace vorpc::qt::details {

// Every integer up to here is a JSON number, that is a double, of its own.
constexpr std::int64_t kMaxJsonInteger = std::int64_t{1} << 53;

// A QString holds at most 2^31 bytes in two-byte units. A longer text fails instead of ending the
// process in Qt's allocation.
constexpr std::size_t kMaxQtText = (std::size_t{1} << 30) - 64;

// Qt takes U+FEFF at the front of UTF-8 for a mark of the encoding, and drops it; here it belongs to
// the text.
inline QString FromUtf8(std::string_view text) {
  constexpr std::string_view kMark = "\xEF\xBB\xBF";
  int marks = 0;
  while (text.substr(0, kMark.size()) == kMark) {
    text.remove_prefix(kMark.size());
    ++marks;
  }
  const QString rest = QString::fromUtf8(text.data(), static_cast<int>(text.size()));
  return marks == 0 ? rest : QString(marks, QChar(QChar::ByteOrderMark)) + rest;
}

inline bool TextToJson(std::string_view text, QString& out) {
  if (text.size() > kMaxQtText) {
    QUARN_LOG_ERROR() << "A text of " << text.size() << " bytes is too long for a JSON value";
    return false;
  }
  out = FromUtf8(text);
  return true;
}

// Converts one value with all that it holds. Outputs are left alone on failure.
class JsonWriter {
 public:
  bool Convert(const cw::EncodableValue& value, QJsonValue& out) {
    if (value.valueless_by_exception()) {
      return Convert(std::monostate(), out);  // as the codec takes it
    }
    return std::visit(
        [this, &out](const auto& alternative) { return this->Convert(alternative, out); },
        static_cast<const cw::internal::EncodableVariant&>(value));
  }

  bool Convert(const cw::EncodableMap& map, QJsonObject& out) {
    const Level level(depth_);
    if (level.IsTooDeep()) {
      return false;
    }
    QJsonObject object;
    for (const auto& [key, value] : map) {
      if (!Insert(key, value, object)) {
        return false;
      }
    }
    out = std::move(object);
    return true;
  }

 private:
  static bool Convert(std::monostate /*null*/, QJsonValue& out) {
    out = QJsonValue(QJsonValue::Null);
    return true;
  }

  static bool Convert(bool value, QJsonValue& out) {
    out = value;
    return true;
  }

  static bool Convert(std::int32_t value, QJsonValue& out) {
    out = static_cast<double>(value);
    return true;
  }

  static bool Convert(std::int64_t value, QJsonValue& out) {
    if (value < -kMaxJsonInteger || value > kMaxJsonInteger) {
      out = QString::number(value);
    } else {
      out = static_cast<double>(value);
    }
    return true;
  }

  static bool Convert(double value, QJsonValue& out) {
    if (std::abs(value) > std::numeric_limits<double>::max()) {
      QUARN_LOG_ERROR() << "Infinite double value cannot be represented as a JSON value";
      return false;
    }
    if (std::isnan(value)) {
      QUARN_LOG_ERROR() << "Non-a-number value cannot be represented as a JSON value";
      return false;
    }
    out = value;
    return true;
  }

  static bool Convert(const std::string& value, QJsonValue& out) {
    QString text;
    if (!TextToJson(value, text)) {
      return false;
    }
    out = text;
    return true;
  }

  static bool Convert(const std::vector<std::uint8_t>& bytes, QJsonValue& out) {
    return Convert(quarn::Buffer(bytes).ToBase64(), out);
  }

  static bool Convert(const cw::CustomEncodableValue& /*custom*/, QJsonValue& /*out*/) {
    return false;
  }

  bool Convert(const cw::EncodableMap& map, QJsonValue& out) {
    QJsonObject object;
    if (!Convert(map, object)) {
      return false;
    }
    out = object;
    return true;
  }

  bool Convert(const cw::EncodableList& list, QJsonValue& out) {
    const Level level(depth_);
    return !level.IsTooDeep() && ConvertItems(list, out);
  }

  template <class Number>
  bool Convert(const std::vector<Number>& numbers, QJsonValue& out) {
    return ConvertItems(numbers, out);
  }

  template <class Item>
  bool ConvertItems(const std::vector<Item>& items, QJsonValue& out) {
    QJsonArray array;
    for (const Item& item : items) {
      QJsonValue converted;
      if (!Convert(item, converted)) {
        return false;
      }
      array.append(converted);
    }
    out = array;
    return true;
  }

  bool Insert(const cw::EncodableValue& key, const cw::EncodableValue& value, QJsonObject& object) {
    const std::string* const text = key.AsString();
    if (text == nullptr) {
      QUARN_LOG_ERROR() << "The key used to create a JSON object must have a string value";
      return false;
    }
    QJsonValue converted;
    QString name;
    if (!Convert(value, converted) || !TextToJson(*text, name)) {
      QUARN_LOG_ERROR() << "The EncodableValue cannot be represented as a JSON value";
      return false;
    }
    const int size = object.size();
    object.insert(name, converted);
    if (object.size() == size) {
      WarnOfMergedKeys(name);
    }
    return true;
  }

  std::size_t depth_ = 0;
};

}  // namespace vorpc::qt::details

#endif  // VORPC_QT_SRC_JSON_WRITER_H
