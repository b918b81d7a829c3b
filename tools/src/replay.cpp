// replay: the application's side of a record, played against a task.
#include <QtCore/QCoreApplication>
#include <QtCore/QTimer>
#include <algorithm>
#include <chrono>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "conversation.h"
#include "exit_status.h"
#include "interrupt.h"
#include "pairing.h"
#include "record_reader.h"
#include "trace_writers.h"
#include "verbs.h"

namespace tarvctl {
namespace {

// What the application did, and what it was told.
struct Script {
  std::vector<Item> items;  // requests, their answers, and notifications to the task
  std::size_t answers = 0;
};

bool IsOfTheHandshake(const Item& item) { return item.method == "vorpc.connected"; }

// The tasks that requests went to.
std::string TaskOf(const std::vector<Item>& items, const std::string& wanted) {
  std::set<std::string> tasks;
  for (const Item& item : items) {
    if (item.kind == Item::Kind::kRequest) {
      tasks.insert(item.task);
    }
  }
  if (tasks.count(wanted) != 0) {
    return wanted;
  }
  if (tasks.size() != 1) {
    throw UsageError(tasks.empty()
                         ? "the record has no request to replay"
                         : "the record has several tasks, and none of that name: name one "
                           "of them with --only");
  }
  return *tasks.begin();
}

Script ReadScript(const Request& request) {
  std::vector<Item> all;
  Pairing pairing([&all](Item&& item) { all.push_back(std::move(item)); });
  RecordReader reader(request.file);
  reader.EachLine([&pairing](const RecordLine& line) { pairing.Add(line); });
  reader.ExpectARecord();
  const std::string task =
      TaskOf(all, request.only_task.empty() ? request.task : request.only_task);
  Script script;
  std::string application;  // who asks
  for (Item& item : all) {
    if (item.kind == Item::Kind::kRequest && item.task == task) {
      application = item.from;
    }
    const bool is_told = item.kind == Item::Kind::kNotification && item.from == application;
    const bool is_answer = item.kind == Item::Kind::kResponse && item.latency >= 0;
    if (item.task == task && !IsOfTheHandshake(item) &&
        (item.kind == Item::Kind::kRequest || is_told || is_answer)) {
      script.answers += is_answer ? 1 : 0;
      script.items.push_back(std::move(item));
    }
  }
  return script;
}

// Sends what the application had sent, in its order, and no request before the answers have come
// that had come before it. Compares each answer with the recorded one.
class Replay {
 public:
  Replay(const Request& request, Output& output, Script script)
      : request_(request),
        output_(output),
        script_(std::move(script)),
        timeout_(ParseDuration(request.timeout, "--timeout")),
        session_(request.task, timeout_, [](const vorpc::Message::Notification& /*ignored*/) {}),
        interrupt_([] { QCoreApplication::exit(kInterrupted); }) {}

  int Run() {
    QTimer::singleShot(0, &context_, [this] { GoOn(); });
    const int status = QCoreApplication::exec();
    return status == kDone ? Conclude() : status;
  }

 private:
  void GoOn();
  bool MayTake(const Item& item);
  void Take(const Item& item);
  void Send(const Item& item);
  void OnAnswer(const std::string& id, const AnyOutcome& outcome);
  void Compare(const Item& recorded, const AnyOutcome& now);
  int Conclude();

  const Request& request_;
  Output& output_;
  const Script script_;
  const Duration timeout_;
  Session session_;
  const Interrupt interrupt_;
  QObject context_;
  std::size_t next_ = 0;
  std::map<std::string, AnyOutcome> answers_;  // by the recorded ids
  std::size_t different_ = 0;
  std::size_t compared_ = 0;
  bool is_pausing_ = false;
};

void Replay::GoOn() {
  while (next_ < script_.items.size() && !is_pausing_ && MayTake(script_.items[next_])) {
    Take(script_.items[next_++]);
  }
  if (next_ == script_.items.size() && !is_pausing_) {
    QCoreApplication::exit(kDone);
  }
}

bool Replay::MayTake(const Item& item) {
  return item.kind != Item::Kind::kResponse || answers_.count(item.id) != 0;
}

void Replay::Take(const Item& item) {
  if (item.kind == Item::Kind::kResponse) {
    Compare(item, answers_.at(item.id));
  } else if (item.kind == Item::Kind::kNotification) {
    session_.GetClient().SendNotify(item.method, PayloadOf(item));
  } else {
    Send(item);
  }
  if (!request_.rate || next_ >= script_.items.size()) {
    return;
  }
  const Duration pause(script_.items[next_].time - item.time);
  is_pausing_ = true;
  QTimer::singleShot(std::chrono::duration_cast<std::chrono::milliseconds>(pause), &context_,
                     [this] {
                       is_pausing_ = false;
                       GoOn();
                     });
}

void Replay::Send(const Item& item) {
  const AnyMethod method{item.method};
  session_.GetCaller()
      .Call(method, PayloadOf(item), tarv::CallOptions().Timeout(timeout_))
      .Then([this, id = item.id](const AnyOutcome& outcome) { OnAnswer(id, outcome); });
}

void Replay::OnAnswer(const std::string& id, const AnyOutcome& outcome) {
  if (!outcome && outcome.GetError().GetReason() != tarv::CallReason::kAnswered) {
    const bool was_answered = std::any_of(
        script_.items.begin(), script_.items.end(),
        [&id](const Item& item) { return item.kind == Item::Kind::kResponse && item.id == id; });
    if (was_answered) {
      ComplainAbout(outcome.GetError(), request_, output_);
      QCoreApplication::exit(StatusOf(outcome.GetError()));
    }
    return;
  }
  answers_.emplace(id, outcome);
  GoOn();
}

cw::EncodableValue ValueOf(const AnyOutcome& outcome) {
  if (outcome) {
    return *outcome;
  }
  const auto& error = outcome.GetError();
  return vorpc::Message::Error(error.GetCode(), error.GetMessage(), error.GetData()).ToEncodable();
}

void Replay::Compare(const Item& recorded, const AnyOutcome& now) {
  ++compared_;
  const cw::EncodableValue before = PayloadOf(recorded);
  const cw::EncodableValue after = ValueOf(now);
  if (before == after && recorded.is_error == !now) {
    return;
  }
  ++different_;
  const auto line = [this](const char* mark, bool is_error, const cw::EncodableValue& value) {
    return std::string(mark) + (is_error ? "error " : "") + ShortJson(value, request_.typed);
  };
  output_.PrintLine(output_.Paint(Colour::kBold, recorded.id + ' ' + recorded.method));
  output_.PrintLine(output_.Paint(Colour::kRed, line("- ", recorded.is_error, before)));
  output_.PrintLine(output_.Paint(Colour::kGreen, line("+ ", !now, after)));
}

int Replay::Conclude() {
  output_.PrintLine(std::to_string(compared_) + " answers compared, " + std::to_string(different_) +
                    " differ");
  return different_ == 0 ? kDone : kAnsweredWithError;
}

}  // namespace

int RunReplay(const Request& request, Output& output) {
  Script script = ReadScript(request);
  if (script.answers == 0) {
    throw UsageError("the record '" + request.file + "' has no answers to compare with");
  }
  return Replay(request, output, std::move(script)).Run();
}

}  // namespace tarvctl
