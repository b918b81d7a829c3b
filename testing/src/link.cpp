#include "link.h"

#include <algorithm>
#include <utility>

namespace tarv::testing::details {
namespace {

using vorpc::Message;

// What a text gets around it on its way: {"data":"..."}.
constexpr std::size_t kEnvelope = 11;

constexpr int kMessageTooLong = -32004;

void AddWord(std::string& words, const std::string& word) {
  words.append(words.empty() ? "" : ", ").append(word);
}

}  // namespace

// A text is Base64, which has no such sign.
std::string Fault::Spoil(std::string text) const {
  if (truncates) {
    text.resize(text.size() / 2);
  }
  if (corrupts && !text.empty()) {
    text[text.size() / 2] = '!';
  }
  return text;
}

std::string Fault::Describe() const {
  std::string words;
  if (delay > Duration::zero()) {
    AddWord(words, "delayed " + TextOfDuration(delay));
  }
  if (truncates) {
    AddWord(words, "truncated");
  }
  if (corrupts) {
    AddWord(words, "corrupted");
  }
  if (duplicates) {
    AddWord(words, "duplicated");
  }
  if (drops) {
    AddWord(words, "dropped");
  }
  return words;
}

Link::Link(std::shared_ptr<ManualLoop> loop, std::string task_name, std::size_t max_message)
    : loop_(std::move(loop)),
      task_name_(std::move(task_name)),
      max_message_(max_message),
      started_(loop_->Now()) {
  transcript_->SetTime(started_);
  lanes_.fill(Lane{{}, started_});
}

void Link::Open() {
  client_ = vorpc::IOwnedClient::Create([weak = weak_from_this()](Message&& message) {
    if (const auto self = weak.lock()) {
      self->Send(Way::kToTask, message);
    }
  });
  server_ = vorpc::IOwnedServer::Create([weak = weak_from_this()](Message&& message) {
    if (const auto self = weak.lock()) {
      self->Send(Way::kFromTask, message);
    }
  });
  client_->SetStarted();
}

void Link::Close() {
  client_.reset();
  server_.reset();
}

std::shared_ptr<Fault> Link::AddFault(std::optional<Way> way) {
  const std::lock_guard lock(mutex_);
  auto fault = std::make_shared<Fault>();
  fault->way = way;
  return faults_.emplace_back(std::move(fault));
}

std::size_t Link::CountUnusedFaults() const {
  const std::lock_guard lock(mutex_);
  return faults_.size();
}

std::optional<Fault> Link::TakeFault(Way way) {
  const auto fits = std::find_if(faults_.begin(), faults_.end(),
                                 [way](const auto& fault) { return fault->Fits(way); });
  if (fits == faults_.end()) {
    return std::nullopt;
  }
  const Fault fault = **fits;
  faults_.erase(fits);
  return fault;
}

void Link::Send(Way way, const Message& message) {
  std::string text = message.ToBase64();
  const std::lock_guard lock(mutex_);
  transcript_->SetTime(loop_->Now());
  if (has_ended_) {
    transcript_->Add(way, message, "lost: the connection has ended");
    return;
  }
  const Fault fault = TakeFault(way).value_or(Fault());
  transcript_->Add(way, message, fault.Describe());
  if (fault.drops || IsTooLong(way, text.size() + kEnvelope)) {
    return;
  }
  text = fault.Spoil(std::move(text));
  if (fault.duplicates) {
    Put(way, {{}, text, {}}, fault.delay);
  }
  Put(way, {{}, std::move(text), {}}, fault.delay);
}

// With the lock held, as Put and Schedule.
bool Link::IsTooLong(Way way, std::size_t size) {
  if (size <= max_message_) {
    return false;
  }
  const std::string bound = " over the bound of " + std::to_string(max_message_) +
                            " bytes that RUNTIME_MANAGER_MAX_MESSAGE sets";
  const std::string task = "task '" + task_name_ + "'";
  const std::string text =
      way == Way::kToTask ? "a message to " + task + " is" + bound : task + " sent a line" + bound;
  has_ended_ = true;
  transcript_->Note("the connection ended: " + text);
  Put(Way::kFromTask, {{}, {}, Message::Error(kMessageTooLong, text)}, {});
  return true;
}

void Link::Put(Way way, Parcel&& parcel, Duration delay) {
  Lane& lane = LaneOf(way);
  lane.last_due = std::max(loop_->Now() + delay, lane.last_due);
  parcel.due = lane.last_due;
  lane.parcels.push_back(std::move(parcel));
  Schedule(way, lane.last_due);
}

void Link::Schedule(Way way, Loop::Time due) {
  auto deliver = [weak = weak_from_this(), way] {
    if (const auto self = weak.lock()) {
      self->Deliver(way);
    }
  };
  if (due <= loop_->Now()) {
    loop_->Post(std::move(deliver));
  } else {
    loop_->WakeAt(due, std::move(deliver));
  }
}

std::optional<Link::Parcel> Link::TakeDue(Way way) {
  const std::lock_guard lock(mutex_);
  std::deque<Parcel>& parcels = LaneOf(way).parcels;
  if (parcels.empty() || parcels.front().due > loop_->Now()) {
    return std::nullopt;
  }
  Parcel parcel = std::move(parcels.front());
  parcels.pop_front();
  return parcel;
}

void Link::Deliver(Way way) {
  const std::optional<Parcel> parcel = TakeDue(way);
  if (!parcel) {
    return;
  }
  // The ends may be let go of inside.
  const auto client = client_;
  const auto server = server_;
  if (client && parcel->end) {
    client->Disconnect(parcel->end);
  } else if (client && way == Way::kFromTask) {
    client->Receive(Message::FromBase64(parcel->text));
  } else if (server && way == Way::kToTask) {
    server->Receive(Message::FromBase64(parcel->text));
  }
}

void Link::EndTask(int code, const std::string& how, const std::string& last_words) {
  std::string text = "the task '" + task_name_ + "' (process 1) " + how + " after " +
                     TextOfDuration(loop_->Now() - started_);
  text += last_words.empty() ? "" : "; its last words: " + last_words;
  End(Message::Error(code, text), "the task " + how);
}

// What the task has sent comes first, also what was delayed; what was sent to it is lost.
void Link::End(Message::Error error, const std::string& note) {
  const std::lock_guard lock(mutex_);
  if (has_ended_) {
    return;
  }
  has_ended_ = true;
  transcript_->SetTime(loop_->Now());
  transcript_->Note(note);
  LaneOf(Way::kToTask).parcels.clear();
  Lane& lane = LaneOf(Way::kFromTask);
  lane.last_due = loop_->Now();
  for (Parcel& parcel : lane.parcels) {
    parcel.due = lane.last_due;
    Schedule(Way::kFromTask, lane.last_due);
  }
  Put(Way::kFromTask, {{}, {}, std::move(error)}, {});
}

}  // namespace tarv::testing::details
