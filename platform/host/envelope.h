// JSON objects as lines of text.
#ifndef RUNTIME_MANAGER_HOST_ENVELOPE_H
#define RUNTIME_MANAGER_HOST_ENVELOPE_H

#include <QtCore/QByteArray>
#include <QtCore/QJsonObject>
#include <cstddef>
#include <optional>
#include <string_view>

namespace RuntimeManager::host {

// Nearly every message is {"data":"text"} with a text of plain characters (plain_text.h). Such a
// message is written and read as its text.
constexpr std::string_view kDataHead = R"({"data":")";
constexpr std::string_view kDataTail = R"("})";
constexpr std::string_view kDataEnd = "\"}\n";  // with the line's end

// The compact JSON of `object`, with the line's end. Nothing when the text without it would be over
// `max_size` bytes; that is found out before any memory is taken for it.
std::optional<QByteArray> EncodeLine(const QJsonObject& object, std::size_t max_size);

// The object that a line (without its end) holds; nothing when it holds anything else.
std::optional<QJsonObject> DecodeLine(const char* text, std::size_t size);

}  // namespace RuntimeManager::host

#endif  // RUNTIME_MANAGER_HOST_ENVELOPE_H
