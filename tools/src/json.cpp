#include "json.h"

#include <vorpc/qt/utils.h>

#include <QtCore/QJsonArray>
#include <QtCore/QJsonDocument>
#include <QtCore/QJsonObject>
#include <iostream>
#include <streambuf>

#include "typed_json.h"

namespace tarvctl {
namespace {

// What Qt indents the elements of an array with.
constexpr int kIndent = 4;

// The conversion warns of each text that is no number; that is no news to whoever wrote the JSON.
class QuietLog {
 public:
  QuietLog() : before_(std::cout.rdbuf(&nowhere_)) {}
  ~QuietLog() { std::cout.rdbuf(before_); }
  QuietLog(const QuietLog&) = delete;
  QuietLog& operator=(const QuietLog&) = delete;

 private:
  struct Nowhere : std::streambuf {
    int_type overflow(int_type byte) override { return traits_type::not_eof(byte); }
  };
  Nowhere nowhere_;
  std::streambuf* before_;
};

}  // namespace

// Qt's documents are arrays or objects: anything else travels in an array of one.
QJsonValue ParseJson(std::string_view text, const std::string& what) {
  QByteArray wrapped = "[";
  wrapped.append(text.data(), static_cast<int>(text.size())).append("\n]");
  QJsonParseError error;
  const QJsonArray array = QJsonDocument::fromJson(wrapped, &error).array();
  if (error.error != QJsonParseError::NoError) {
    throw JsonError(what + " is no JSON: " + error.errorString().toStdString() + " at byte " +
                    std::to_string(error.offset - 1) + " of " + std::to_string(text.size()));
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
  const QuietLog quiet;
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
  const QuietLog quiet;
  if (!vorpc::qt::EncodableToJson(value, json)) {
    throw JsonError(
        "JSON does not hold this value (an infinity, NaN, or a key that is no text): "
        "--typed shows it");
  }
  return json;
}

}  // namespace tarvctl
