// Any JSON object as values and back: after the first way there and back nothing changes any more.
#include <vorpc/qt/utils.h>

#include <QByteArray>
#include <QJsonDocument>

#include "support/require.h"
#include "support/values.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  using tarv::fuzz::Require;
  const auto text =
      QByteArray::fromRawData(reinterpret_cast<const char*>(data), static_cast<int>(size));
  cw::EncodableMap map;
  QJsonObject object;
  if (!vorpc::qt::JsonObjectToEncodableMap(QJsonDocument::fromJson(text).object(), map) ||
      !vorpc::qt::EncodableMapToJsonObject(map, object)) {
    return 0;
  }
  cw::EncodableMap again;
  QJsonObject same;
  Require(vorpc::qt::JsonObjectToEncodableMap(object, again), "what was written can be read");
  Require(vorpc::qt::EncodableMapToJsonObject(again, same), "and written again");
  Require(same == object, "the JSON stays as it is");
  return 0;
}
