#include "envelope.h"

#include <QtCore/QJsonArray>
#include <QtCore/QJsonDocument>
#include <QtCore/QString>
#include <algorithm>
#include <limits>
#include <string_view>

#include "plain_text.h"

namespace RuntimeManager::host {
namespace {

// No number takes more in compact JSON: a sign, 17 digits, a point and an exponent.
constexpr std::size_t kLongestNumber = 25;

template <typename Unit>
bool AreAllPlain(const Unit* text, std::size_t size) {
  Unit strange = 0;
  for (std::size_t i = 0; i < size; ++i) {
    strange |= static_cast<Unit>(!IsPlain(text[i]));
  }
  return strange == 0;
}

// Without a JSON document, which would copy the text four times more.
std::optional<QByteArray> EncodePlainData(const QJsonObject& object, std::size_t max_size) {
  if (object.size() != 1) {
    return std::nullopt;
  }
  const auto member = object.constBegin();
  if (!member.value().isString() || member.key() != QLatin1String("data")) {
    return std::nullopt;
  }
  const QString text = member.value().toString();
  const auto size = static_cast<std::size_t>(text.size());
  if (kDataHead.size() + size + kDataTail.size() > max_size) {
    return std::nullopt;
  }
  if (!AreAllPlain(text.utf16(), size)) {
    return std::nullopt;
  }
  QByteArray line(static_cast<int>(kDataHead.size() + size + kDataTail.size() + 1),
                  Qt::Uninitialized);
  char* out = std::copy(kDataHead.begin(), kDataHead.end(), line.data());
  const ushort* units = text.utf16();
  out = std::transform(units, units + size, out, [](ushort unit) { return char(unit); });
  out = std::copy(kDataTail.begin(), kDataTail.end(), out);
  *out = '\n';
  return line;
}

std::size_t EscapedSize(ushort code) {
  if (IsPlain(code) || code == 0x7f) {
    return 1;
  }
  if (code == '"' || code == '\\' || (code >= '\b' && code <= '\r' && code != '\v')) {
    return 2;
  }
  if (code < 0x20) {
    return 6;
  }
  return code < 0x800 ? 2 : 3;
}

std::size_t EscapedSize(const QString& text) {
  std::size_t size = 2;
  for (int i = 0; i < text.size(); ++i) {
    if (!text.at(i).isSurrogate()) {
      size += EscapedSize(text.at(i).unicode());
    } else if (text.at(i).isHighSurrogate() && i + 1 < text.size() &&
               text.at(i + 1).isLowSurrogate()) {
      size += 4;
      ++i;
    } else {
      size += 6;
    }
  }
  return size;
}

// The bytes of a value's compact JSON: only what numbers take is not known beforehand.
struct JsonSize {
  std::size_t least = 0;
  std::size_t most = 0;
  void Add(std::size_t bytes) {
    least += bytes;
    most += bytes;
  }
  void Add(const JsonSize& other) {
    least += other.least;
    most += other.most;
  }
};

JsonSize SizeOf(const QJsonValue& value) {
  JsonSize size;
  if (value.isString()) {
    size.Add(EscapedSize(value.toString()));
  } else if (value.isArray()) {
    const QJsonArray array = value.toArray();
    for (const QJsonValue& item : array) {
      size.Add(SizeOf(item));
    }
    size.Add(2 + static_cast<std::size_t>(std::max(array.size() - 1, 0)));
  } else if (value.isObject()) {
    const QJsonObject object = value.toObject();
    for (auto member = object.begin(); member != object.end(); ++member) {
      size.Add(EscapedSize(member.key()) + 1);
      size.Add(SizeOf(member.value()));
    }
    size.Add(2 + static_cast<std::size_t>(std::max(object.size() - 1, 0)));
  } else {
    size = {1, kLongestNumber};
  }
  return size;
}

// Found out before any memory is taken.
bool MayFit(const QJsonObject& object, std::size_t max_size) {
  constexpr std::size_t kQtBound = std::numeric_limits<int>::max() / 2;
  const JsonSize size = SizeOf(object);
  return size.least <= max_size && size.most <= kQtBound;
}

}  // namespace

std::optional<QByteArray> EncodeLine(const QJsonObject& object, std::size_t max_size) {
  if (auto line = EncodePlainData(object, max_size)) {
    return line;
  }
  if (!MayFit(object, max_size)) {
    return std::nullopt;
  }
  QByteArray line = QJsonDocument(object).toJson(QJsonDocument::Compact);
  if (static_cast<std::size_t>(line.size()) > max_size) {
    return std::nullopt;
  }
  return line += '\n';
}

std::optional<QJsonObject> DecodeLine(const char* text, std::size_t size) {
  const QJsonDocument document =
      QJsonDocument::fromJson(QByteArray::fromRawData(text, static_cast<int>(size)));
  if (!document.isObject()) {
    return std::nullopt;
  }
  return document.object();
}

}  // namespace RuntimeManager::host
