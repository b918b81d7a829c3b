// Typed JSON; json.h has the form.
#ifndef TARVCTL_TYPED_JSON_H
#define TARVCTL_TYPED_JSON_H

#include <cw/encodable_value.h>

#include <QtCore/QJsonValue>

namespace tarvctl {

// Both throw JsonError.
cw::EncodableValue FromTypedJson(const QJsonValue& json);
QJsonValue ToTypedJson(const cw::EncodableValue& value);

}  // namespace tarvctl

#endif  // TARVCTL_TYPED_JSON_H
