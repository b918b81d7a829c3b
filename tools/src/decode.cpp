// decode, encode: bytes that travel, and what they mean.
#include <cw/standard_message_codec.h>
#include <vorpc/message.h>

#include <QtCore/QByteArray>
#include <QtCore/QFileInfo>
#include <QtCore/QJsonObject>
#include <algorithm>
#include <cctype>
#include <exception>
#include <optional>
#include <string>

#include "captured_log.h"
#include "conversation.h"
#include "exit_status.h"
#include "input.h"
#include "json.h"
#include "verbs.h"

namespace tarvctl {
namespace {

std::string WithoutBlanks(std::string text) {
  text.erase(std::remove_if(text.begin(), text.end(),
                            [](unsigned char c) { return std::isspace(c) != 0; }),
             text.end());
  return text;
}

bool IsHex(const std::string& text) {
  return !text.empty() && text.size() % 2 == 0 &&
         std::all_of(text.begin(), text.end(),
                     [](unsigned char c) { return std::isxdigit(c) != 0; });
}

// A line of the wire or of a record holds the text as "data".
std::optional<std::string> DataOfEnvelope(const std::string& text) {
  if (text.empty() || text[0] != '{') {
    return std::nullopt;
  }
  QJsonObject object = ParseJson(text, "INPUT").toObject();
  if (object.contains("envelope")) {
    object = object.value("envelope").toObject();
  }
  if (!object.value("data").isString()) {
    throw UsageError("this JSON is no message: it has no \"data\"");
  }
  return object.value("data").toString().toStdString();
}

// In the form that was asked for; hex before Base64 where both fit, as hex of a value begins with
// the byte of its kind, "00" to "0e".
QByteArray BytesOf(const std::string& text, const std::string& form) {
  const bool hex =
      form.empty() ? IsHex(text) && text[0] == '0' && std::tolower(text[1]) <= 'e' : form == "hex";
  if (hex && !IsHex(text)) {
    throw UsageError("the input is no hex: it must be pairs of 0-9 and a-f");
  }
  const QByteArray raw = QByteArray::fromStdString(text);
  if (hex) {
    return QByteArray::fromHex(raw);
  }
  const auto decoded = QByteArray::fromBase64Encoding(raw, QByteArray::AbortOnBase64DecodingErrors);
  if (!decoded) {
    throw UsageError("the input is neither hex nor Base64 of a value");
  }
  return *decoded;
}

cw::EncodableValue Decode(const QByteArray& bytes) {
  if (bytes.isEmpty()) {
    throw UsageError("there is nothing to decode");
  }
  const CapturedLog log;
  try {
    const auto value = cw::StandardMessageCodec::GetInstance().DecodeMessage(
        reinterpret_cast<const std::uint8_t*>(bytes.constData()),
        static_cast<std::size_t>(bytes.size()));
    if (value && log.GetText().empty()) {
      return *value;
    }
  } catch (const std::exception& error) {
    throw UsageError(std::string("the bytes are no value: ") + error.what());
  }
  throw UsageError("the bytes are no value: " + log.GetText().substr(0, log.GetText().find('\n')));
}

std::string InputText(const Request& request) {
  const bool is_file =
      request.input == "-" || QFileInfo(QString::fromStdString(request.input)).isFile();
  return WithoutBlanks(is_file ? ReadAll(request.input) : request.input);
}

}  // namespace

int RunDecode(const Request& request, Output& output) {
  const std::string text = InputText(request);
  const auto data = DataOfEnvelope(text);
  PrintValue(Decode(BytesOf(data.value_or(text), data ? "base64" : request.format)), request,
             output);
  return kDone;
}

int RunEncode(const Request& request, Output& output) {
  const std::string text = request.input == "-" ? ReadAll("-") : request.input;
  const auto value = FromJson(ParseJson(text, "INPUT"), request.typed);
  const quarn::Buffer bytes = value.Serialize();
  const QByteArray raw(reinterpret_cast<const char*>(bytes.GetData()),
                       static_cast<int>(bytes.GetSize()));
  output.PrintLine((request.format == "hex" ? raw.toHex() : raw.toBase64()).toStdString());
  return kDone;
}

}  // namespace tarvctl
