// A record as JSON: lines for scripts, and the events that viewers of performance open.
#include <QtCore/QJsonArray>
#include <QtCore/QJsonObject>
#include <fstream>
#include <map>
#include <utility>

#include "json.h"
#include "trace_writers.h"

namespace tarvctl {
namespace {

constexpr double kNanosecondsPerSecond = 1e9;
constexpr double kNanosecondsPerMs = 1e6;
constexpr double kNanosecondsPerUs = 1e3;

QString Text(const std::string& text) { return QString::fromStdString(text); }

QJsonValue Payload(const Item& item, bool typed) {
  try {
    return ToJson(PayloadOf(item), typed);
  } catch (const JsonError&) {
    return ToJson(PayloadOf(item), true);
  }
}

void AddUnlessEmpty(QJsonObject& object, const char* key, const std::string& text) {
  if (!text.empty()) {
    object.insert(key, Text(text));
  }
}

QJsonObject JsonOf(const MethodTotals& totals) {
  return {{"task", Text(totals.task)},
          {"method", Text(totals.method)},
          {"count", static_cast<double>(totals.count)},
          {"errors", static_cast<double>(totals.errors)},
          {"unanswered", static_cast<double>(totals.unanswered)},
          {"bytes", static_cast<double>(totals.bytes)},
          {"median_ms", totals.median_ms},
          {"p99_ms", totals.p99_ms}};
}

class JsonWriter final : public TraceWriter {
 public:
  JsonWriter(const Request& request, Output& output) : request_(request), output_(output) {}

  void Write(const Item& item) override {
    if (request_.totals) {
      return;
    }
    QJsonObject object{{"time", static_cast<double>(item.time) / kNanosecondsPerSecond},
                       {"kind", NameOf(item.kind)},
                       {"from", Text(item.from)},
                       {"to", Text(item.to)},
                       {"task", Text(item.task)}};
    AddUnlessEmpty(object, "id", item.id);
    AddUnlessEmpty(object, "method", item.method);
    AddUnlessEmpty(object, "text", item.text);
    if (item.latency >= 0) {
      object.insert("latency_ms", static_cast<double>(item.latency) / kNanosecondsPerMs);
    }
    if (!item.message.IsEmpty()) {
      object.insert("bytes", static_cast<double>(item.bytes));
      object.insert(item.is_error ? "error" : "payload", Payload(item, request_.typed));
    }
    output_.PrintLine(ToText(object, false));
  }

  void Finish(const std::vector<Unanswered>& unanswered,
              const std::vector<MethodTotals>& totals) override {
    QJsonArray never;
    for (const Unanswered& request : unanswered) {
      never.append(QJsonObject{{"task", Text(request.task)},
                               {"id", Text(request.id)},
                               {"method", Text(request.method)}});
    }
    QJsonArray sums;
    for (const MethodTotals& sum : totals) {
      sums.append(JsonOf(sum));
    }
    output_.PrintLine(ToText(QJsonObject{{"totals", sums}, {"unanswered", never}}, false));
  }

 private:
  const Request& request_;
  Output& output_;
};

// Requests are spans, which may overlap; everything else is a moment.
class PerfettoWriter final : public TraceWriter {
 public:
  explicit PerfettoWriter(const std::string& path) : file_(path) {
    if (!file_) {
      throw UsageError("cannot write '" + path + "'");
    }
    file_ << "{\"displayTimeUnit\":\"ms\",\"traceEvents\":[";
  }

  void Write(const Item& item) override {
    QJsonObject event{{"ts", static_cast<double>(item.time) / kNanosecondsPerUs},
                      {"cat", Text(item.task)},
                      {"tid", 0}};
    if (item.kind == Item::Kind::kRequest || item.kind == Item::Kind::kResponse) {
      const bool begins = item.kind == Item::Kind::kRequest;
      event.insert("pid", ProcessOf(begins ? item.to : item.from));
      event.insert("ph", begins ? "b" : "e");
      event.insert("id", Text(item.id));
      event.insert("name", Text(item.method));
    } else {
      event.insert("pid", ProcessOf(item.to));
      event.insert("ph", "i");
      event.insert("s", "p");
      event.insert("name", item.method.empty() ? QString(NameOf(item.kind)) : Text(item.method));
    }
    event.insert("args", QJsonObject{{item.is_error ? "error" : "payload", Payload(item, false)},
                                     {"text", Text(item.text)}});
    Put(event);
  }

  void Finish(const std::vector<Unanswered>& /*unanswered*/,
              const std::vector<MethodTotals>& /*totals*/) override {
    file_ << "]}\n";
    file_.flush();
    if (!file_) {
      throw UsageError("the trace could not be written: is the disk full?");
    }
  }

 private:
  // Viewers want numbers, and show the names that belong to them.
  int ProcessOf(const std::string& name) {
    const auto [found, is_new] = processes_.emplace(name, static_cast<int>(processes_.size()) + 1);
    if (is_new) {
      Put({{"ph", "M"},
           {"name", "process_name"},
           {"pid", found->second},
           {"args", QJsonObject{{"name", Text(name)}}}});
    }
    return found->second;
  }
  void Put(const QJsonObject& event) {
    file_ << (std::exchange(is_first_, false) ? "\n" : ",\n") << ToText(event, false);
  }

  std::ofstream file_;
  bool is_first_ = true;
  std::map<std::string, int> processes_;
};

}  // namespace

std::unique_ptr<TraceWriter> MakeJsonWriter(const Request& request, Output& output) {
  return std::make_unique<JsonWriter>(request, output);
}

std::unique_ptr<TraceWriter> MakePerfettoWriter(const std::string& path) {
  return std::make_unique<PerfettoWriter>(path);
}

}  // namespace tarvctl
