#include "typed_json.h"

#include <QtCore/QJsonArray>
#include <QtCore/QJsonObject>
#include <algorithm>
#include <array>
#include <cmath>
#include <cstdint>
#include <limits>
#include <string>
#include <string_view>
#include <type_traits>
#include <utility>
#include <variant>
#include <vector>

#include "json.h"

namespace tarvctl {
namespace {

using cw::EncodableList;
using cw::EncodableMap;
using cw::EncodableValue;

// Integers up to this one are numbers of JSON.
constexpr std::int64_t kLargestExact = std::int64_t{1} << 53U;

constexpr std::array<std::string_view, 9> kKinds{"int32",  "int64",   "double", "bytes", "int32s",
                                                 "int64s", "doubles", "floats", "map"};

bool IsKind(const QString& name) {
  const std::string text = name.toStdString();
  return std::find(kKinds.begin(), kKinds.end(), text) != kKinds.end();
}

// ---- Writing ----

QJsonValue NumberJson(std::int64_t number) {
  if (number < -kLargestExact || number > kLargestExact) {
    return QString::number(number);
  }
  return static_cast<double>(number);
}

QJsonValue NumberJson(double number) {
  if (std::isnan(number)) {
    return QStringLiteral("nan");
  }
  return std::isinf(number)
             ? QJsonValue(number > 0 ? QStringLiteral("inf") : QStringLiteral("-inf"))
             : QJsonValue(number);
}

struct Writer {
  QJsonValue operator()(std::monostate /*null*/) const { return QJsonValue::Null; }
  QJsonValue operator()(bool value) const { return value; }
  QJsonValue operator()(std::int32_t value) const { return QJsonObject{{"int32", value}}; }
  QJsonValue operator()(std::int64_t value) const {
    return QJsonObject{{"int64", NumberJson(value)}};
  }
  QJsonValue operator()(double value) const { return QJsonObject{{"double", NumberJson(value)}}; }
  QJsonValue operator()(const std::string& text) const { return QString::fromStdString(text); }
  QJsonValue operator()(const std::vector<std::uint8_t>& bytes) const {
    const QByteArray raw(reinterpret_cast<const char*>(bytes.data()),
                         static_cast<int>(bytes.size()));
    return QJsonObject{{"bytes", QString::fromLatin1(raw.toBase64())}};
  }
  QJsonValue operator()(const std::vector<std::int32_t>& list) const {
    return Numbers<std::int64_t>("int32s", list);
  }
  QJsonValue operator()(const std::vector<std::int64_t>& list) const {
    return Numbers<std::int64_t>("int64s", list);
  }
  QJsonValue operator()(const std::vector<double>& list) const {
    return Numbers<double>("doubles", list);
  }
  QJsonValue operator()(const std::vector<float>& list) const {
    return Numbers<double>("floats", list);
  }
  QJsonValue operator()(const EncodableList& list) const {
    QJsonArray array;
    for (const EncodableValue& value : list) {
      array.append(ToTypedJson(value));
    }
    return array;
  }
  QJsonValue operator()(const EncodableMap& map) const;
  QJsonValue operator()(const cw::CustomEncodableValue& /*value*/) const {
    throw JsonError("a custom value has no typed JSON");
  }

  template <class Wide, class Number>
  static QJsonValue Numbers(const char* kind, const std::vector<Number>& list) {
    QJsonArray array;
    for (const Number number : list) {
      array.append(NumberJson(static_cast<Wide>(number)));
    }
    return QJsonObject{{kind, array}};
  }
};

QJsonValue Writer::operator()(const EncodableMap& map) const {
  QJsonObject object;
  QJsonArray pairs;
  for (const auto& [key, value] : map) {
    if (const std::string* const text = key.AsString()) {
      object.insert(QString::fromStdString(*text), ToTypedJson(value));
    }
    pairs.append(QJsonArray{ToTypedJson(key), ToTypedJson(value)});
  }
  if (static_cast<std::size_t>(object.size()) != map.size()) {
    return QJsonObject{{"map", pairs}};
  }
  const bool looks_like_a_kind = object.size() == 1 && IsKind(object.begin().key());
  return looks_like_a_kind ? QJsonObject{{"map", object}} : object;
}

// ---- Reading ----

[[noreturn]] void Refuse(const std::string& kind, const QJsonValue& json) {
  throw JsonError('"' + kind + "\" cannot hold " + ToText(json, false).substr(0, 80));
}

template <class Int>
Int ReadInt(const std::string& kind, const QJsonValue& json) {
  bool is_number = json.isDouble();
  const double number = json.toDouble();
  qlonglong value = 0;
  if (json.isString()) {
    value = json.toString().toLongLong(&is_number);
  } else if (is_number && std::trunc(number) == number && std::abs(number) <= kLargestExact) {
    value = static_cast<qlonglong>(number);
  } else {
    is_number = false;
  }
  if (!is_number || value < std::numeric_limits<Int>::min() ||
      value > std::numeric_limits<Int>::max()) {
    Refuse(kind, json);
  }
  return static_cast<Int>(value);
}

double ReadDouble(const std::string& kind, const QJsonValue& json) {
  bool is_number = json.isDouble();
  const double number = json.isString() ? json.toString().toDouble(&is_number) : json.toDouble();
  if (!is_number) {
    Refuse(kind, json);
  }
  return number;
}

template <class Number>
EncodableValue ReadNumbers(const std::string& kind, const QJsonValue& json) {
  if (!json.isArray()) {
    Refuse(kind, json);
  }
  std::vector<Number> list;
  const QJsonArray elements = json.toArray();
  for (const QJsonValue element : elements) {
    if constexpr (std::is_integral_v<Number>) {
      list.push_back(ReadInt<Number>(kind, element));
    } else {
      list.push_back(static_cast<Number>(ReadDouble(kind, element)));
    }
  }
  return list;
}

EncodableValue ReadBytes(const QJsonValue& json) {
  const auto decoded = QByteArray::fromBase64Encoding(json.toString().toLatin1(),
                                                      QByteArray::AbortOnBase64DecodingErrors);
  if (!json.isString() || !decoded) {
    Refuse("bytes", json);
  }
  return std::vector<std::uint8_t>(decoded.decoded.begin(), decoded.decoded.end());
}

EncodableMap ReadObject(const QJsonObject& object) {
  EncodableMap map;
  for (auto member = object.begin(); member != object.end(); ++member) {
    map.emplace(member.key().toStdString(), FromTypedJson(member.value()));
  }
  return map;
}

EncodableValue ReadMap(const QJsonValue& json) {
  if (json.isObject()) {
    return ReadObject(json.toObject());
  }
  EncodableMap map;
  const QJsonArray pairs = json.toArray();
  for (const QJsonValue pair : pairs) {
    if (pair.toArray().size() != 2) {
      Refuse("map", pair);
    }
    map.emplace(FromTypedJson(pair[0]), FromTypedJson(pair[1]));
  }
  if (!json.isArray()) {
    Refuse("map", json);
  }
  return map;
}

EncodableValue ReadKind(const std::string& kind, const QJsonValue& json) {
  using Reader = EncodableValue (*)(const std::string& kind, const QJsonValue& json);
  static const std::vector<std::pair<std::string_view, Reader>> kReaders{
      {"int32", [](auto& k, auto& j) { return EncodableValue(ReadInt<std::int32_t>(k, j)); }},
      {"int64", [](auto& k, auto& j) { return EncodableValue(ReadInt<std::int64_t>(k, j)); }},
      {"double", [](auto& k, auto& j) { return EncodableValue(ReadDouble(k, j)); }},
      {"bytes", [](auto& /*k*/, auto& j) { return ReadBytes(j); }},
      {"int32s", &ReadNumbers<std::int32_t>},
      {"int64s", &ReadNumbers<std::int64_t>},
      {"doubles", &ReadNumbers<double>},
      {"floats", &ReadNumbers<float>},
      {"map", [](auto& /*k*/, auto& j) { return ReadMap(j); }}};
  for (const auto& [name, read] : kReaders) {
    if (name == kind) {
      return read(kind, json);
    }
  }
  Refuse(kind, json);
}

EncodableValue ReadPlainNumber(double number) {
  if (std::trunc(number) != number || std::abs(number) > kLargestExact) {
    return number;
  }
  const auto whole = static_cast<std::int64_t>(number);
  if (whole < std::numeric_limits<std::int32_t>::min() ||
      whole > std::numeric_limits<std::int32_t>::max()) {
    return whole;
  }
  return static_cast<std::int32_t>(whole);
}

EncodableValue ReadList(const QJsonArray& array) {
  EncodableList list;
  for (const QJsonValue& element : array) {
    list.push_back(FromTypedJson(element));
  }
  return list;
}

}  // namespace

cw::EncodableValue FromTypedJson(const QJsonValue& json) {
  switch (json.type()) {
    case QJsonValue::Bool:
      return json.toBool();
    case QJsonValue::Double:
      return ReadPlainNumber(json.toDouble());
    case QJsonValue::String:
      return json.toString().toStdString();
    case QJsonValue::Array:
      return ReadList(json.toArray());
    case QJsonValue::Object: {
      const QJsonObject object = json.toObject();
      const bool is_kind = object.size() == 1 && IsKind(object.begin().key());
      return is_kind ? ReadKind(object.begin().key().toStdString(), object.begin().value())
                     : EncodableValue(ReadObject(object));
    }
    default:
      return {};
  }
}

QJsonValue ToTypedJson(const cw::EncodableValue& value) {
  return std::visit(Writer(), static_cast<const cw::internal::EncodableVariant&>(value));
}

}  // namespace tarvctl
