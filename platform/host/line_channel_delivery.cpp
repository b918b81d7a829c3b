// How a channel hands out the lines that it has read.

#include <algorithm>
#include <optional>
#include <utility>

#include "connections.h"
#include "envelope.h"
#include "line_channel.h"
#include "support.h"
#include "trace.h"

namespace RuntimeManager::host {
namespace {

// A peer that speaks another protocol shall not fill the log.
constexpr int kMaxLineWarnings = 10;
constexpr int kShownOfLine = 80;

}  // namespace

// Corks the queue while the lines of one read are delivered, even when a handler throws.
class LineChannel::CorkScope {
 public:
  explicit CorkScope(SendQueue* queue) : queue_(queue) {}
  ~CorkScope() { queue_->Uncork(); }
  CorkScope(const CorkScope&) = delete;
  CorkScope& operator=(const CorkScope&) = delete;

 private:
  SendQueue* queue_;
};

// False when the time is over; the rest then follows in the next turn of the event loop.
bool LineChannel::DeliverLines(Turn* turn) {
  // What handlers further out have held, when this is an event loop that a handler runs.
  queue_->Uncork();
  const CorkScope scope(queue_.get());
  LineBuffer::Line line;
  // The line is done with before a handler runs, which may run an event loop and read on.
  bool has_line = false;
  while (!ended_ && OrEnd([&] { has_line = input_.TakeLine(&line); }) && has_line) {
    PrepareForTheNext(turn);
    DeliverLine(line);
    if (!turn->HasBegun()) {
      continue;
    }
    const auto now = Turn::Clock::now();
    if (turn->IsOver(now) && StopForThisTurn()) {
      return false;
    }
    queue_->SendOld(now);
  }
  EndIfOverlong();
  return true;
}

// Answers wait for those to the lines that have come with theirs. An event loop that a handler runs
// gets these lines, too, although no byte more may come to wake it.
void LineChannel::PrepareForTheNext(Turn* turn) {
  const bool more = input_.HoldsMore();
  queue_->Cork(more);
  if (more) {
    turn->Begin();
    DeliverRestSoon();
  }
}

// False when nobody would come back for the rest.
bool LineChannel::StopForThisTurn() {
  is_over_time_ = !ended_ && DeliverRestSoon();
  return ended_ || is_over_time_;
}

void LineChannel::EndIfOverlong() {
  if (ended_ || !input_.IsOverlong()) {
    return;
  }
  End({Error::kMessageTooLong, QString("%1 sent a line over the bound of %2 bytes that "
                                       "RUNTIME_MANAGER_MAX_MESSAGE sets")
                                   .arg(peer_)
                                   .arg(limits_.max_message)});
}

bool LineChannel::DeliverRestSoon() {
  rest_is_due_ = rest_is_due_ || Attempt([this] { Post(&context_, [this] { OnRest(); }); });
  return rest_is_due_;
}

void LineChannel::DeliverLine(const LineBuffer::Line& line) {
  if (line.is_data) {
    DeliverData(line.text);
    return;
  }
  std::optional<QJsonObject> object;
  if (OrEnd([&] { object = Decode(line.text); }) && object) {
    callbacks_.on_object(*object);
  }
}

std::optional<QJsonObject> LineChannel::Decode(std::string_view text) {
  std::optional<QJsonObject> object = DecodeLine(text.data(), text.size());
  if (!object) {
    WarnAboutLine(text, "is dropped: it is not a JSON object");
    return object;
  }
  Trace(task_, Direction::kReceive, {text});
  if (!object->value(QLatin1String("data")).isString() && WantsData()) {
    WarnAboutLine(text, "holds no message: it has no text \"data\"");
  }
  return object;
}

void LineChannel::DeliverData(std::string_view text) {
  QByteArray data;
  QJsonObject object;
  const bool wants_data = WantsData();
  const bool taken = OrEnd([&] {
    Trace(task_, Direction::kReceive, {kDataHead, text, kDataTail});
    if (wants_data) {
      data = input_.Detach(text);
    } else {
      object = {{QStringLiteral("data"),
                 QString::fromLatin1(text.data(), static_cast<int>(text.size()))}};
    }
  });
  if (taken && wants_data) {
    callbacks_.on_data(data);
    input_.Recycle(std::move(data));
  } else if (taken) {
    callbacks_.on_object(object);
  }
}

void LineChannel::WarnAboutLine(std::string_view line, const char* what) {
  if (++line_warnings_ > kMaxLineWarnings) {
    return;
  }
  const int shown = static_cast<int>(std::min<std::size_t>(line.size(), kShownOfLine));
  Warn(QString("a line of %1 bytes from %2 %3; it begins with: %4%5")
           .arg(line.size())
           .arg(peer_, what, Escaped(QByteArray::fromRawData(line.data(), shown)),
                line_warnings_ == kMaxLineWarnings ? " (there is no warning of further lines)"
                                                   : ""));
}

}  // namespace RuntimeManager::host
