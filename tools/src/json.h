// Values as JSON text and back.
//
// Plain JSON is short, and loses kinds: see docs/json-rpc.md. Typed JSON keeps them: null, true,
// texts, lists and maps with text keys are as in plain JSON; every other value is an object with
// one member, whose name is the kind:
//
//   {"int32": 5}  {"int64": 5}  {"double": 2.5}  {"bytes": Base64}  {"int32s": [1]}  {"int64s": [1]}
//   {"doubles": [0.5]}  {"floats": [0.5]}  {"map": [[key, value], ...]}  {"map": {"int32": 5}}
//
// The last is a map whose one key is the name of a kind. Numbers that JSON does not hold are texts:
// {"int64": "9007199254740993"}, {"double": "nan"}.
#ifndef TARVCTL_JSON_H
#define TARVCTL_JSON_H

#include <cw/encodable_value.h>

#include <QtCore/QJsonValue>
#include <stdexcept>
#include <string>
#include <string_view>

namespace tarvctl {

// A text that is no JSON, or a value that the wanted form cannot hold.
class JsonError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

// Any JSON value; `what` names it in the error.
QJsonValue ParseJson(std::string_view text, const std::string& what);
std::string ToText(const QJsonValue& json, bool pretty);

// In typed JSON a plain number is an int32 or, above, an int64; one with a fraction a double.
cw::EncodableValue FromJson(const QJsonValue& json, bool typed);
QJsonValue ToJson(const cw::EncodableValue& value, bool typed);

}  // namespace tarvctl

#endif  // TARVCTL_JSON_H
