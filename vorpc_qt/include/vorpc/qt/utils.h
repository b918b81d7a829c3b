// Conversion between the values of messages and Qt's JSON.
//
// There and back is not always the same: integers come back in the smallest kind that holds them, a
// text of digits comes back as an integer, bytes as their Base64 text, typed lists in the kind
// their numbers fit. docs/json-rpc.md has the table.
//
// Free functions without state, on any thread. A failure gives false and an empty output, after
// error lines that say why; nothing throws but running out of memory. Values and JSON that nest
// deeper than cw::kMaxNesting fail. Bytes that are no UTF-8 become U+FFFD; when keys become equal
// by that, one of their values stays and a warning tells of the loss.
#ifndef VORPC_QT_UTILS_H
#define VORPC_QT_UTILS_H

#include <cw/encodable_value.h>
#include <quarn/export.h>

#include <QJsonObject>
#include <QJsonValue>
#include <QString>

namespace vorpc::qt {

// Integers beyond ±2^53, which JSON numbers cannot hold, become texts of their digits, byte lists
// their Base64 text. Fails, with an undefined `out`, for infinities, NaN, custom values and maps
// with a key that is no string, wherever they are.
TARV_EXPORT bool EncodableToJson(const cw::EncodableValue& value, QJsonValue& out);

// Fails, with an empty `out`, for a key that is no string and as EncodableToJson does.
TARV_EXPORT bool EncodableMapToJsonObject(const cw::EncodableMap& map, QJsonObject& out);

// The map as compact JSON text; a null string where EncodableMapToJsonObject fails.
TARV_EXPORT QString EncodableMapToJsonString(const cw::EncodableMap& map);

// Integral numbers and texts of digits become an int32_t, or an int64_t where that is too small.
// Arrays of numbers become the tightest of an int32, int64 or double list, an empty one an int32
// list; other arrays a list. Fails, with a null `out`, for an undefined value.
TARV_EXPORT bool JsonToEncodable(const QJsonValue& json, cw::EncodableValue& out);

// The keys become strings. Fails, with an empty `out`, as JsonToEncodable does.
TARV_EXPORT bool JsonObjectToEncodableMap(const QJsonObject& object, cw::EncodableMap& out);

}  // namespace vorpc::qt

#endif  // VORPC_QT_UTILS_H
