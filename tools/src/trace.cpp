// trace: a record, decoded, summed up, and in other forms.
#include <unistd.h>

#include <QtCore/QCoreApplication>
#include <QtCore/QTimer>
#include <memory>
#include <utility>

#include "exit_status.h"
#include "interrupt.h"
#include "pairing.h"
#include "record_reader.h"
#include "redaction.h"
#include "totals.h"
#include "trace_filter.h"
#include "trace_writers.h"
#include "verbs.h"

namespace tarvctl {

cw::EncodableValue PayloadOf(const Item& item) {
  if (const auto* const request = item.message.GetRequest()) {
    return request->params;
  }
  if (const auto* const notification = item.message.GetNotification()) {
    return notification->params;
  }
  if (const auto* const response = item.message.GetResponse()) {
    return response->IsError() ? response->GetError()->ToEncodable() : *response->GetResult();
  }
  const auto* const error = item.message.GetError();
  return error == nullptr ? cw::EncodableValue() : error->ToEncodable();
}

const char* NameOf(Item::Kind kind) {
  switch (kind) {
    case Item::Kind::kRequest:
      return "request";
    case Item::Kind::kResponse:
      return "response";
    case Item::Kind::kNotification:
      return "notification";
    case Item::Kind::kStart:
      return "start";
    case Item::Kind::kEnd:
      return "end";
    case Item::Kind::kConnection:
      return "connection";
    case Item::Kind::kFault:
      return "fault";
    default:
      return "other";
  }
}

namespace {

constexpr int kFollowMs = 100;

std::unique_ptr<TraceWriter> MakeWriter(const Request& request, Output& output) {
  if (!request.html.empty()) {
    return MakeHtmlWriter(request.html);
  }
  if (!request.perfetto.empty()) {
    return MakePerfettoWriter(request.perfetto);
  }
  return request.json ? MakeJsonWriter(request, output) : MakeTextWriter(request, output);
}

// From lines to what is shown.
class Show {
 public:
  Show(const Request& request, Output& output)
      : output_(output),
        reader_(request.file),
        writer_(MakeWriter(request, output)),
        filter_(request,
                [this](const Item& item) {
                  totals_.Add(item);
                  writer_->Write(item);
                }),
        pairing_([this](Item&& item) { filter_.Add(std::move(item)); }),
        request_(request) {}

  void All() {
    reader_.EachLine([this](const RecordLine& line) { Add(line); });
    reader_.ExpectARecord();
  }
  // Until Ctrl-C.
  int Follow() {
    QTimer timer;
    QObject::connect(&timer, &QTimer::timeout, &timer, [this] {
      reader_.EachNewLine([this](const RecordLine& line) { Add(line); });
      output_.Flush();
    });
    timer.start(kFollowMs);
    const Interrupt interrupt([] { QCoreApplication::exit(kDone); });
    return QCoreApplication::exec();
  }
  void Finish() {
    std::vector<Unanswered> unanswered;
    for (const Unanswered& request : pairing_.GetUnanswered()) {
      if ((request_.only_task.empty() || request.task == request_.only_task) &&
          (request_.method.empty() || request.method == request_.method)) {
        totals_.AddUnanswered(request);
        unanswered.push_back(request);
      }
    }
    writer_->Finish(unanswered, totals_.Get());
    if (reader_.CountOdd() > 0) {
      output_.Complain(std::to_string(reader_.CountOdd()) + " lines of '" + request_.file +
                       "' are no lines of a record, and were left out");
    }
  }

 private:
  void Add(const RecordLine& line) {
    if (!output_.IsBroken()) {
      pairing_.Add(line);
    }
  }

  Output& output_;
  RecordReader reader_;
  std::unique_ptr<TraceWriter> writer_;
  Totals totals_;
  TraceFilter filter_;
  Pairing pairing_;
  const Request& request_;
};

int Redact(const Request& request, Output& output) {
  RecordReader reader(request.file);
  const Redaction redaction(request.redact);
  reader.EachRawLine([&](std::string_view line) {
    if (!output.IsBroken()) {
      output.PrintLine(redaction.Apply(line));
    }
  });
  return kDone;
}

}  // namespace

int RunTrace(const Request& request, Output& output) {
  if (!request.redact.empty()) {
    return Redact(request, output);
  }
  Show show(request, output);
  if (request.follow) {
    const int status = show.Follow();
    show.Finish();
    return status;
  }
  show.All();
  show.Finish();
  return kDone;
}

}  // namespace tarvctl
