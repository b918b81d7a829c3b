// Any JSON object as values and back: it says the same as before, but for what the conversion is to
// change (texts of digits become numbers, large integers texts), and then nothing changes any more.
// What does not nest too deeply is not refused.
#include <cw/codec_limits.h>
#include <vorpc/qt/utils.h>

#include <QByteArray>
#include <QJsonArray>
#include <QJsonDocument>
#include <algorithm>
#include <cmath>

#include "support/require.h"
#include "support/values.h"

namespace {

using tarv::fuzz::Require;

bool IsKept(const QJsonValue& before, const QJsonValue& after);

std::size_t DepthOf(const QJsonValue& json) {
  std::size_t deepest = 0;
  const QJsonArray elements = json.toArray();
  for (const QJsonValue& element : elements) {
    deepest = std::max(deepest, DepthOf(element));
  }
  const QJsonObject members = json.toObject();
  for (const QJsonValue& member : members) {
    deepest = std::max(deepest, DepthOf(member));
  }
  return deepest + (json.isArray() || json.isObject() ? 1 : 0);
}

// An integer that a text of digits stands for.
bool IsInteger(const QString& digits, double number) {
  bool is_integer = false;
  const auto integer = static_cast<double>(digits.toLongLong(&is_integer));
  return is_integer && integer == number;
}

// JSON's numbers hold no larger integers for certain.
bool IsLarge(double number) {
  constexpr double kLargest = 9007199254740992;
  return std::abs(number) > kLargest;
}

bool IsNumberKept(double before, const QJsonValue& after) {
  return after.isDouble() ? after.toDouble() == before
                          : IsLarge(before) && IsInteger(after.toString(), before);
}

// Half of a pair of surrogates is no UTF-8, and becomes a sign that stands for what was there.
bool IsTextKept(const QString& before, const QJsonValue& after) {
  if (after.isDouble()) {
    return IsInteger(before, after.toDouble());
  }
  const bool is_same = before.toUtf8() == after.toString().toUtf8();
  bool is_integer = false;
  const qlonglong integer = before.toLongLong(&is_integer);
  return after.isString() && (is_same || (is_integer && after.toString().toLongLong() == integer));
}

bool IsArrayKept(const QJsonArray& before, const QJsonArray& after) {
  return std::equal(before.begin(), before.end(), after.begin(), after.end(), &IsKept);
}

// Keys that are no UTF-8 may have become equal, and then one of their values stays. Qt's parser makes
// equal ones, too, of a key with and without a byte order mark, and does not find the former.
bool HasCleanKeys(const QJsonObject& object) {
  QStringList keys = object.keys();
  return keys.removeDuplicates() == 0 &&
         std::all_of(keys.begin(), keys.end(),
                     [](const QString& key) { return QString::fromUtf8(key.toUtf8()) == key; });
}

bool IsObjectKept(const QJsonObject& before, const QJsonObject& after) {
  if (!HasCleanKeys(before)) {
    return true;
  }
  for (auto member = before.begin(); member != before.end(); ++member) {
    if (!IsKept(member.value(), after[member.key()])) {
      return false;
    }
  }
  return after.size() == before.size();
}

bool IsKept(const QJsonValue& before, const QJsonValue& after) {
  switch (before.type()) {
    case QJsonValue::Double:
      return IsNumberKept(before.toDouble(), after);
    case QJsonValue::String:
      return IsTextKept(before.toString(), after);
    case QJsonValue::Array:
      return after.isArray() && IsArrayKept(before.toArray(), after.toArray());
    case QJsonValue::Object:
      return after.isObject() && IsObjectKept(before.toObject(), after.toObject());
    default:
      return before == after;
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const auto text =
      QByteArray::fromRawData(reinterpret_cast<const char*>(data), static_cast<int>(size));
  const QJsonObject read = QJsonDocument::fromJson(text).object();
  cw::EncodableMap map;
  if (!vorpc::qt::JsonObjectToEncodableMap(read, map)) {
    Require(DepthOf(read) > cw::kMaxNesting, "JSON that is not too deep can be read");
    return 0;
  }
  QJsonObject object;
  Require(vorpc::qt::EncodableMapToJsonObject(map, object), "what was read can be written");
  Require(IsObjectKept(read, object), "the JSON says what it said");
  cw::EncodableMap again;
  QJsonObject same;
  Require(vorpc::qt::JsonObjectToEncodableMap(object, again), "what was written can be read");
  Require(vorpc::qt::EncodableMapToJsonObject(again, same), "and written again");
  Require(same == object, "the JSON stays as it is");
  return 0;
}
