#include "input.h"

#include <QtCore/QFile>
#include <cstdint>
#include <cstdio>
#include <utility>
#include <vector>

#include "json.h"

namespace tarvctl {
namespace {

void AddBytes(const std::string& argument, cw::EncodableValue& params) {
  const std::size_t equals = argument.find('=');
  if (equals == 0 || equals == std::string::npos) {
    throw UsageError("--bytes '" + argument + "': write NAME=FILE");
  }
  if (params.IsNull()) {
    params = cw::EncodableMap();
  }
  auto* const map = std::get_if<cw::EncodableMap>(&params);
  if (map == nullptr) {
    throw UsageError("--bytes adds a member, but PARAMS is no JSON object");
  }
  const std::string content = ReadAll(argument.substr(equals + 1));
  (*map)[argument.substr(0, equals)] = std::vector<std::uint8_t>(content.begin(), content.end());
}

}  // namespace

std::string ReadAll(const std::string& path) {
  QFile file(QString::fromStdString(path));
  const bool open =
      path == "-" ? file.open(stdin, QIODevice::ReadOnly) : file.open(QIODevice::ReadOnly);
  if (!open) {
    throw UsageError("cannot read '" + path + "': " + file.errorString().toStdString());
  }
  return file.readAll().toStdString();
}

cw::EncodableValue ReadParams(const Request& request) {
  const std::string text = request.params == "-" ? ReadAll("-") : request.params;
  cw::EncodableValue params;
  if (!text.empty() || request.params == "-") {
    params = FromJson(ParseJson(text, "PARAMS"), request.typed);
  }
  for (const std::string& argument : request.bytes) {
    AddBytes(argument, params);
  }
  return params;
}

}  // namespace tarvctl
