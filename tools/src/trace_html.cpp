// A record as one page, which needs neither a network nor other files.
#include <QtCore/QJsonArray>
#include <QtCore/QJsonObject>
#include <fstream>
#include <map>
#include <string>
#include <string_view>
#include <utility>

#include "json.h"
#include "page.h"
#include "trace_writers.h"

namespace tarvctl {
namespace {

constexpr double kNanosecondsPerUs = 1e3;
// As the page's script numbers them.
constexpr int kErrorFlag = 1;
constexpr int kFirstEvent = 4;

constexpr std::string_view kRows = "/*ROWS*/";
constexpr std::string_view kLanes = "/*LANES*/";

// JSON inside HTML: nothing in it may look like a tag.
std::string InHtml(const QJsonValue& json) {
  std::string text = ToText(json, false);
  for (std::size_t at = 0; (at = text.find('<', at)) != std::string::npos;) {
    text.replace(at, 1, "\\u003c");
  }
  return text;
}

int NumberOf(Item::Kind kind) {
  switch (kind) {
    case Item::Kind::kStart:
      return kFirstEvent;
    case Item::Kind::kEnd:
      return kFirstEvent + 1;
    case Item::Kind::kConnection:
      return kFirstEvent + 2;
    case Item::Kind::kFault:
      return kFirstEvent + 3;
    default:
      return static_cast<int>(kind);
  }
}

class HtmlWriter final : public TraceWriter {
 public:
  explicit HtmlWriter(const std::string& path) : path_(path), file_(path) {
    if (!file_) {
      throw UsageError("cannot write '" + path + "'");
    }
    const std::string_view page = kPage;
    file_ << page.substr(0, page.find(kRows));
  }

  void Write(const Item& item) override {
    file_ << (std::exchange(is_first_, false) ? "\n" : ",\n") << InHtml(RowOf(item));
  }

  void Finish(const std::vector<Unanswered>& unanswered,
              const std::vector<MethodTotals>& /*totals*/) override {
    const std::string_view page = kPage;
    const std::size_t rows_end = page.find(kRows) + kRows.size();
    const std::size_t lanes = page.find(kLanes);
    file_ << page.substr(rows_end, lanes - rows_end)
          << InHtml(QJsonObject{{"names", names_}, {"unanswered", IdsOf(unanswered)}})
          << page.substr(lanes + kLanes.size());
    file_.flush();
    if (!file_) {
      throw UsageError("the page '" + path_ + "' could not be written: is the disk full?");
    }
  }

 private:
  static QJsonArray IdsOf(const std::vector<Unanswered>& unanswered) {
    QJsonArray ids;
    for (const Unanswered& request : unanswered) {
      ids.append(QString::fromStdString(request.task + '\n' + request.id));
    }
    return ids;
  }

  QJsonArray RowOf(const Item& item) {
    const QString payload = QString::fromStdString(
        item.message.IsEmpty() ? item.text : ToText(ToJson(PayloadOf(item), true), false));
    return {static_cast<double>(item.time) / kNanosecondsPerUs,
            NumberOf(item.kind),
            LaneOf(item.from),
            LaneOf(item.to),
            QString::fromStdString(item.id),
            QString::fromStdString(item.method),
            item.latency < 0 ? -1.0 : static_cast<double>(item.latency) / kNanosecondsPerUs,
            item.is_error ? kErrorFlag : 0,
            QString::fromStdString(item.task),
            payload};
  }

  int LaneOf(const std::string& name) {
    const auto [found, is_new] = lanes_.emplace(name, static_cast<int>(lanes_.size()));
    if (is_new) {
      names_.append(QString::fromStdString(name));
    }
    return found->second;
  }

  const std::string path_;
  std::ofstream file_;
  bool is_first_ = true;
  std::map<std::string, int> lanes_;
  QJsonArray names_;
};

}  // namespace

std::unique_ptr<TraceWriter> MakeHtmlWriter(const std::string& path) {
  return std::make_unique<HtmlWriter>(path);
}

}  // namespace tarvctl
