#include "record.h"

#include <tarv/testing/transcript.h>
#include <unistd.h>

#include <QtCore/QByteArray>
#include <QtCore/QJsonDocument>
#include <QtCore/QJsonObject>
#include <algorithm>
#include <sstream>
#include <vector>

namespace tarv::testing::details {
namespace {

using Lines = std::vector<QJsonObject>;

// About this task, by time: processes write when they get to it.
Lines LinesOf(const std::string& record, const std::string& task) {
  Lines lines;
  std::istringstream stream(record);
  for (std::string text; std::getline(stream, text);) {
    const QJsonObject line = QJsonDocument::fromJson(QByteArray::fromStdString(text)).object();
    if (line["task"].toString().toStdString() == task) {
      lines.push_back(line);
    }
  }
  std::stable_sort(lines.begin(), lines.end(), [](const QJsonObject& a, const QJsonObject& b) {
    return a["time"].toDouble() < b["time"].toDouble();
  });
  return lines;
}

bool IsMessageOf(const QJsonObject& line, int process) {
  return line.contains("envelope") && line["pid"].toInt() == process;
}

}  // namespace

std::string TranscriptOf(const std::string& record, const std::string& task, int process) {
  const Lines lines = LinesOf(record, task);
  const int starter = getpid();
  const bool is_kept_here =
      std::any_of(lines.begin(), lines.end(),
                  [starter](const QJsonObject& line) { return IsMessageOf(line, starter); });
  Transcript transcript;
  for (const QJsonObject& line : lines) {
    if (line.contains("fault")) {
      transcript.Note("fault: " + line["fault"].toString().toStdString());
    } else if (IsMessageOf(line, is_kept_here ? starter : process)) {
      const bool sent = line["direction"].toString() == "send";
      const QString text = line["envelope"].toObject()["data"].toString();
      transcript.Add(sent == is_kept_here ? Way::kToTask : Way::kFromTask,
                     vorpc::Message::FromBase64(text.toStdString()));
    }
  }
  return transcript.GetText();
}

}  // namespace tarv::testing::details
