#include <cw/codec_limits.h>
#include <quarn/buffer.h>
#include <quarn/logger.h>
#include <quarn/numbers.h>
#include <quarn/strings.h>
#include <vorpc/qt/utils.h>

#include <QByteArray>
#include <QJsonArray>
#include <QJsonDocument>
#include <cmath>
#include <cstdint>
#include <limits>
#include <string>
#include <string_view>
#include <utility>
#include <variant>
#include <vector>

namespace vorpc::qt {

namespace {

// Every integer up to here is a JSON number, that is a double, of its own.
constexpr std::int64_t kMaxJsonInteger = std::int64_t{1} << 53;

// A QString holds at most 2^31 bytes in two-byte units. A longer text fails instead of ending the
// process in Qt's allocation.
constexpr std::size_t kMaxQtText = (std::size_t{1} << 30) - 64;

// Qt takes U+FEFF at the front of UTF-8 for a mark of the encoding, and drops it; here it belongs to
// the text.
QString FromUtf8(std::string_view text) {
  constexpr std::string_view kMark = "\xEF\xBB\xBF";
  int marks = 0;
  while (text.substr(0, kMark.size()) == kMark) {
    text.remove_prefix(kMark.size());
    ++marks;
  }
  const QString rest = QString::fromUtf8(text.data(), static_cast<int>(text.size()));
  return marks == 0 ? rest : QString(marks, QChar(QChar::ByteOrderMark)) + rest;
}

bool TextToJson(std::string_view text, QString& out) {
  if (text.size() > kMaxQtText) {
    QUARN_LOG_ERROR() << "A text of " << text.size() << " bytes is too long for a JSON value";
    return false;
  }
  out = FromUtf8(text);
  return true;
}

// One list or map (array or object) that is being converted, counted while it lives.
class Level {
 public:
  explicit Level(std::size_t& depth) : depth_(depth) { ++depth_; }
  ~Level() { --depth_; }
  Level(const Level&) = delete;
  Level& operator=(const Level&) = delete;

  // True, after an error line, when this is one level too many.
  bool IsTooDeep() const {
    if (depth_ <= cw::kMaxNesting) {
      return false;
    }
    QUARN_LOG_ERROR() << "A value that nests deeper than " << cw::kMaxNesting
                      << " lists and maps cannot be converted";
    return true;
  }

 private:
  std::size_t& depth_;
};

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
    object.insert(name, converted);
    return true;
  }

  std::size_t depth_ = 0;
};

// An integer as the smallest kind that holds it.
cw::EncodableValue ToSmallestInteger(std::int64_t value) {
  if (value >= std::numeric_limits<std::int32_t>::min() &&
      value <= std::numeric_limits<std::int32_t>::max()) {
    return static_cast<std::int32_t>(value);
  }
  return value;
}

// Reads an element of a typed list; false when the element does not fit it.
bool ReadNumber(const QJsonValue& json, std::int64_t& out) {
  return json.isDouble() && quarn::numbers::SafeDoubleToInt64(json.toDouble(), out);
}

bool ReadNumber(const QJsonValue& json, std::int32_t& out) {
  std::int64_t wide = 0;
  if (!ReadNumber(json, wide) || wide < std::numeric_limits<std::int32_t>::min() ||
      wide > std::numeric_limits<std::int32_t>::max()) {
    return false;
  }
  out = static_cast<std::int32_t>(wide);
  return true;
}

bool ReadNumber(const QJsonValue& json, double& out) {
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
      map.emplace(entry.key().toStdString(), std::move(value));
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

}  // namespace

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
