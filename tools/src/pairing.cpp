#include "pairing.h"

#include <algorithm>
#include <string_view>

namespace tarvctl {
namespace {

using Kind = Item::Kind;

// Messages that were sent and whose receiver has not told yet; a receiver that keeps no record
// never does.
constexpr std::size_t kMostMarks = 100000;

}  // namespace

void Pairing::Add(const RecordLine& line) {
  if (begin_ < 0) {
    begin_ = line.time;
  }
  if (!line.IsMessage()) {
    AddEvent(line);
  } else if (!IsSecondLine(line)) {
    AddMessage(line);
  }
}

// Whether the sender's line of the same message has come before.
bool Pairing::IsSecondLine(const RecordLine& line) {
  const std::hash<std::string> hash;
  const Mark mark = hash(line.data + line.envelope) * 31 + hash(line.task);
  if (line.kind == RecordLine::Kind::kSend) {
    ++sent_[mark];
    sent_order_.push_back(mark);
    if (sent_order_.size() > kMostMarks) {
      const auto oldest = sent_.find(sent_order_.front());
      if (oldest != sent_.end() && --oldest->second <= 0) {
        sent_.erase(oldest);
      }
      sent_order_.pop_front();
    }
    return false;
  }
  const auto found = sent_.find(mark);
  if (found == sent_.end()) {
    return false;
  }
  if (--found->second <= 0) {
    sent_.erase(found);
  }
  return true;
}

std::string Pairing::NameOf(std::int64_t pid) const {
  const auto found = names_.find(pid);
  return found == names_.end() ? "process " + std::to_string(pid) : found->second;
}

std::string Pairing::PeerOf(const RecordLine& line) const {
  const auto found = peers_.find({line.task, line.pid});
  if (found != peers_.end()) {
    return NameOf(found->second);
  }
  return NameOf(line.pid) == line.task ? "application" : line.task;
}

// Where the line of the start is missing, because the starter keeps no record: whoever answers is
// the task.
void Pairing::LearnFrom(const RecordLine& line, const vorpc::Message& message) {
  const bool is_sent = line.kind == RecordLine::Kind::kSend;
  if ((!is_sent && message.GetRequest() != nullptr) ||
      (is_sent && message.GetResponse() != nullptr)) {
    names_.emplace(line.pid, line.task);
  }
}

void Pairing::AddMessage(const RecordLine& line) {
  Item item;
  item.time = line.time - begin_;
  item.task = line.task;
  item.bytes = line.data.empty() ? line.envelope.size() : line.data.size();
  if (line.data.empty()) {
    item.text = line.envelope;
  } else {
    item.message = vorpc::Message::FromBase64(line.data);
    LearnFrom(line, item.message);
    FillMessage(item);
  }
  item.from = NameOf(line.pid);
  item.to = PeerOf(line);
  if (line.kind == RecordLine::Kind::kReceive) {
    std::swap(item.from, item.to);
  }
  handle_(std::move(item));
}

void Pairing::FillMessage(Item& item) {
  if (const auto* const request = item.message.GetRequest()) {
    item.kind = Kind::kRequest;
    item.id = request->id.value;
    item.method = request->method;
    open_[item.task].insert_or_assign(item.id, Open{item.method, item.time});
  } else if (const auto* const notification = item.message.GetNotification()) {
    item.kind = Kind::kNotification;
    item.method = notification->method;
  } else if (item.message.GetResponse() != nullptr) {
    FillResponse(item);
  } else {
    item.is_error = item.message.IsError();
  }
}

void Pairing::FillResponse(Item& item) {
  const auto& response = *item.message.GetResponse();
  item.kind = Kind::kResponse;
  item.id = response.id.value;
  item.is_error = response.IsError();
  auto& open = open_[item.task];
  const auto found = open.find(item.id);
  if (found == open.end()) {
    return;
  }
  item.method = found->second.method;
  item.latency = item.time - found->second.time;
  open.erase(found);
}

void Pairing::AddEvent(const RecordLine& line) {
  Item item;
  item.time = line.time - begin_;
  item.task = line.task;
  if (line.kind == RecordLine::Kind::kStart) {
    item.kind = Kind::kStart;
    names_[line.process] = line.task;
    names_.emplace(line.pid, line.starter);
    peers_[{line.task, line.pid}] = line.process;
    peers_[{line.task, line.process}] = line.pid;
    item.text = "process " + std::to_string(line.process);
  } else if (line.kind == RecordLine::Kind::kEnd) {
    item.kind = Kind::kEnd;
    item.text = line.reason;
  } else if (line.kind == RecordLine::Kind::kFault) {
    item.kind = Kind::kFault;
    item.text = line.reason;
  } else {
    item.kind = Kind::kConnection;
  }
  item.from = NameOf(line.pid);
  item.to = PeerOf(line);
  handle_(std::move(item));
}

std::vector<Unanswered> Pairing::GetUnanswered() const {
  std::vector<Unanswered> waiting;
  for (const auto& [task, open] : open_) {
    for (const auto& [id, request] : open) {
      waiting.push_back({task, id, request.method, request.time});
    }
  }
  std::sort(waiting.begin(), waiting.end(),
            [](const Unanswered& a, const Unanswered& b) { return a.time < b.time; });
  return waiting;
}

}  // namespace tarvctl
