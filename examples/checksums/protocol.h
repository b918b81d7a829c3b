// What the application and its task say to each other: compact JSON objects as message texts.
//
//   application -> task   {"hash": 7, "path": "..."}      hash this file
//                         {"cancel": true}                drop everything
//   task -> application   {"progress": 7, "bytes": n}     n bytes of file 7 are hashed
//                         {"done": 7, "sha256": "..."}    file 7 is hashed
//                         {"failed": 7, "why": "..."}     file 7 could not be read
//                         {"cancelled": true}             nothing more will come
#ifndef CHECKSUMS_PROTOCOL_H
#define CHECKSUMS_PROTOCOL_H

#include <QByteArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QString>
#include <string>

namespace checksums {

inline std::string ToText(const QJsonObject& object) {
  return QJsonDocument(object).toJson(QJsonDocument::Compact).toStdString();
}

inline QJsonObject FromText(const char* text) {
  return QJsonDocument::fromJson(QByteArray::fromRawData(text, static_cast<int>(qstrlen(text))))
      .object();
}

// A path is bytes of no known encoding: each byte travels as one code point.
inline QString PathToJson(const std::string& path) {
  return QString::fromLatin1(path.data(), static_cast<int>(path.size()));
}

inline std::string PathFromJson(const QJsonValue& value) {
  return value.toString().toLatin1().toStdString();
}

}  // namespace checksums

#endif  // CHECKSUMS_PROTOCOL_H
