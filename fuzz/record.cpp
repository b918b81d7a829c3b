// Any file as a record of messages, in every form that it is shown in: each form is what it claims
// to be, whatever peers have put into names and texts, and a redacted record holds nothing of what
// was to go.
#include <cw/standard_message_codec.h>
#include <vorpc/message.h>

#include <QtCore/QByteArray>
#include <QtCore/QJsonDocument>
#include <QtCore/QJsonObject>
#include <algorithm>
#include <array>
#include <cstdint>
#include <string>
#include <string_view>

#include "record_line.h"
#include "support/memory_file.h"
#include "support/require.h"
#include "support/script.h"
#include "support/tool.h"
#include "support/values.h"
#include "verbs.h"

namespace {

using tarv::fuzz::MakeValue;
using tarv::fuzz::MemoryFile;
using tarv::fuzz::Require;
using tarv::fuzz::Results;
using tarv::fuzz::Script;
using tarvctl::RecordLine;
using tarvctl::Request;
using vorpc::Message;

// ---- A record ----

std::string MakeName(Script& script, const char* usual) {
  return script.Below(4) == 0 ? script.Text() : usual;
}

Message MakeMessage(Script& script) {
  const Message::ID id("id" + std::to_string(script.Below(4)));
  switch (script.Below(5)) {
    case 0:
      return Message::CreateRequest(id, MakeName(script, "count"), MakeValue(script, 2));
    case 1:
      return Message::CreateResponse(id, MakeValue(script, 2));
    case 2:
      return Message::CreateError(id, -1, script.Text(), MakeValue(script, 2));
    case 3:
      return Message::CreateNotification(MakeName(script, "tick"), MakeValue(script, 2));
    default:
      return Message::FromEncodable(MakeValue(script));
  }
}

std::string MakeMessageLine(Script& script) {
  RecordLine line;
  line.time = script.Flag() ? script.Number<std::int64_t>() : script.Byte();
  line.pid = 10 + static_cast<std::int64_t>(script.Below(3));
  line.task = MakeName(script, "worker");
  line.kind = script.Flag() ? RecordLine::Kind::kSend : RecordLine::Kind::kReceive;
  line.data = MakeMessage(script).ToBase64();
  return tarvctl::WriteMessageLine(line);
}

std::string MakeEventLine(Script& script) {
  constexpr std::array<const char*, 4> kEvents{"start", "end", "connection", "send"};
  QJsonObject object{{"time", script.Flag() ? script.Number<double>() : script.Byte()},
                     {"pid", 10},
                     {"process", script.Flag() ? script.Number<double>() : 11},
                     {"task", QString::fromStdString(MakeName(script, "worker"))},
                     {"event", kEvents[script.Below(kEvents.size())]},
                     {"starter", QString::fromStdString(MakeName(script, "app"))},
                     {"reason", QString::fromStdString(script.Text())}};
  if (script.Flag()) {
    object.insert("fault", QString::fromStdString(MakeName(script, "drop")));
  }
  return QJsonDocument(object).toJson(QJsonDocument::Compact).toStdString();
}

std::string MakeRecord(Script& script) {
  std::string record;
  while (script.HasMore()) {
    switch (script.Below(4)) {
      case 0:
        record += script.Text();
        break;
      case 1:
        record += MakeEventLine(script);
        break;
      default:
        record += MakeMessageLine(script);
    }
    record += '\n';
  }
  return record;
}

// ---- What is shown of it ----

Request MakeRequest(Script& script) {
  constexpr std::array<const char*, 3> kTimes{"0s", "1ns", "1ms"};
  Request request;
  const unsigned flags = script.Byte();
  request.errors = (flags & 1U) != 0;
  request.totals = (flags & 2U) != 0;
  request.typed = (flags & 4U) != 0;
  request.only_task = (flags & 8U) != 0 ? "worker" : "";
  request.method = (flags & 16U) != 0 ? "count" : "";
  request.since = kTimes[script.Below(kTimes.size())];
  request.slower = kTimes[script.Below(kTimes.size())];
  return request;
}

// False for what is no record at all.
bool IsShown(const Request& request) {
  try {
    Require(tarvctl::RunTrace(request, Results::Get().GetOutput()) == 0, "a record can be shown");
  } catch (const tarvctl::UsageError&) {
    return false;
  }
  return true;
}

std::string Show(const Request& request) {
  return IsShown(request) ? Results::Get().Take() : std::string();
}

template <class Handle>
void EachLine(std::string_view text, Handle&& handle) {
  while (!text.empty()) {
    const std::size_t end = text.find('\n');
    Require(end != std::string_view::npos, "lines have ends");
    handle(text.substr(0, end));
    text.remove_prefix(end + 1);
  }
}

bool IsControl(unsigned char sign) { return sign < ' ' || sign == 0x7f; }

// Nothing that is shown to people moves the cursor of a terminal, or begins a line of its own.
void CheckText(const std::string& text) {
  EachLine(text, [](std::string_view line) {
    Require(std::none_of(line.begin(), line.end(), &IsControl), "no control characters");
  });
}

bool IsObject(std::string_view text) {
  return QJsonDocument::fromJson(QByteArray(text.data(), static_cast<int>(text.size()))).isObject();
}

void CheckLinesOfJson(const std::string& text) {
  EachLine(text, [](std::string_view line) { Require(IsObject(line), "a line of JSON"); });
}

std::size_t CountTags(std::string_view page) {
  return static_cast<std::size_t>(std::count(page.begin(), page.end(), '<'));
}

// A page has as many tags as one of an empty record: what peers have sent makes none.
void CheckPage(const std::string& page) {
  static const std::size_t tags = [] {
    const MemoryFile record;
    const MemoryFile file;
    Request request;
    request.file = record.GetPath();
    request.html = file.GetPath();
    Require(IsShown(request), "an empty record can be shown");
    return CountTags(file.GetText());
  }();
  Require(CountTags(page) == tags, "nothing that was said looks like a tag");
}

void CheckMessage(const RecordLine& line) {
  const QByteArray bytes = QByteArray::fromBase64(QByteArray::fromStdString(line.data));
  const auto message =
      cw::EncodableValue::Deserialize(reinterpret_cast<const std::uint8_t*>(bytes.constData()),
                                      static_cast<std::size_t>(bytes.size()));
  const cw::EncodableMap* const map = message.AsMap();
  const auto* const params = map == nullptr ? nullptr : cw::Find(*map, "params");
  Require(params == nullptr || *params == cw::EncodableValue("[redacted]"), "params are gone");
}

void CheckRedacted(const std::string& text) {
  EachLine(text, [](std::string_view text_of_line) {
    const auto line = tarvctl::ParseRecordLine(text_of_line);
    Require(text_of_line.empty() || line.has_value(), "a line of a record");
    if (line && line->IsMessage()) {
      CheckMessage(*line);
    }
  });
}

void ShowAs(std::size_t form, Request request) {
  const MemoryFile file;
  switch (form) {
    case 0:
      CheckText(Show(request));
      break;
    case 1:
      request.json = true;
      CheckLinesOfJson(Show(request));
      break;
    case 2:
      request.html = file.GetPath();
      if (IsShown(request)) {
        CheckPage(file.GetText());
      }
      break;
    case 3:
      request.perfetto = file.GetPath();
      Require(!IsShown(request) || IsObject(file.GetText()), "a trace of JSON");
      break;
    default:
      request.redact = {"params", "result.token"};
      CheckRedacted(Show(request));
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  Script script(data, size);
  const MemoryFile record;
  Request request = MakeRequest(script);
  const std::size_t form = script.Below(5);
  request.file = record.GetPath();
  record.Write(MakeRecord(script));
  ShowAs(form, request);
  return 0;
}
