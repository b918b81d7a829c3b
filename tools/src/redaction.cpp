#include "redaction.h"

#include <cw/standard_message_codec.h>

#include <QtCore/QByteArray>
#include <exception>
#include <sstream>
#include <utility>

#include "record_line.h"
#include "request.h"

namespace tarvctl {
namespace {

using cw::EncodableList;
using cw::EncodableMap;
using cw::EncodableValue;
using Steps = std::vector<std::string>;

constexpr char kInstead[] = "[redacted]";

void Redact(EncodableValue& value, const Steps& steps, std::size_t at) {
  if (at == steps.size()) {
    value = kInstead;
    return;
  }
  if (auto* const list = std::get_if<EncodableList>(&value)) {
    for (EncodableValue& element : *list) {
      Redact(element, steps, at);
    }
    return;
  }
  auto* const map = std::get_if<EncodableMap>(&value);
  if (map == nullptr) {
    return;
  }
  for (auto& [key, member] : *map) {
    const std::string* const name = key.AsString();
    if (steps[at] == "*" || (name != nullptr && *name == steps[at])) {
      Redact(member, steps, at + 1);
    }
  }
}

EncodableValue Decode(const std::string& base64) {
  const QByteArray bytes = QByteArray::fromBase64(QByteArray::fromStdString(base64));
  const auto value = cw::StandardMessageCodec::GetInstance().DecodeMessage(
      reinterpret_cast<const std::uint8_t*>(bytes.constData()),
      static_cast<std::size_t>(bytes.size()));
  return value ? *value : EncodableValue();
}

std::string Encode(const EncodableValue& value) {
  const quarn::Buffer bytes = value.Serialize();
  return QByteArray(reinterpret_cast<const char*>(bytes.GetData()),
                    static_cast<int>(bytes.GetSize()))
      .toBase64()
      .toStdString();
}

}  // namespace

Redaction::Redaction(const std::vector<std::string>& paths) {
  for (const std::string& path : paths) {
    std::istringstream steps(path);
    Steps split;
    for (std::string step; std::getline(steps, step, '.');) {
      if (step.empty()) {
        throw UsageError("--redact '" + path + "': write names with dots between, params.password");
      }
      split.push_back(step);
    }
    paths_.push_back(std::move(split));
  }
}

std::string Redaction::Apply(std::string_view text) const {
  auto line = ParseRecordLine(text);
  if (line && !line->IsMessage()) {
    return std::string(text);
  }
  if (!line || line->data.empty()) {
    return {};
  }
  try {
    EncodableValue message = Decode(line->data);
    if (message.IsNull()) {
      return {};
    }
    for (const Steps& steps : paths_) {
      Redact(message, steps, 0);
    }
    line->data = Encode(message);
  } catch (const std::exception&) {
    return {};
  }
  return WriteMessageLine(*line);
}

}  // namespace tarvctl
