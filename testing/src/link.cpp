#include "link.h"

#include <algorithm>
#include <utility>

namespace tarv::testing::details {
namespace {

using vorpc::Message;

// What a text gets around it on its way: {"data":"..."}.
constexpr std::size_t kEnvelope = 11;

constexpr int kConnectionLost = -32003;
constexpr int kMessageTooLong = -32004;
constexpr int kQueueFull = -32005;

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

Link::Link(std::shared_ptr<ManualLoop> loop, const LoopbackOptions& options)
    : loop_(std::move(loop)), options_(options), started_(loop_->Now()) {
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
  users_client_ = std::make_shared<LinkClient>(client_, options_.task_name);
  client_->SetStarted();
}

void Link::Close() {
  users_client_.reset();
  client_.reset();
  server_.reset();
  play_ = nullptr;
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
  if (is_stopped_ && way == Way::kFromTask) {
    unsent_.push_back(message);
    return;
  }
  const Fault fault = TakeFault(way).value_or(Fault());
  transcript_->Add(way, message, fault.Describe());
  if (fault.drops || !FitsBounds(way, text.size() + kEnvelope)) {
    return;
  }
  text = fault.Spoil(std::move(text));
  if (fault.duplicates) {
    Put(way, {{}, text, {}}, fault.delay);
  }
  Put(way, {{}, std::move(text), {}}, fault.delay);
}

// With the lock held, as all until TakeDue. A message that does not fit ends the connection.
bool Link::FitsBounds(Way way, std::size_t size) {
  if (!FitsMessage(way, size)) {
    return false;
  }
  if (!BreaksQueue(way, size)) {
    return true;
  }
  EndLocked(
      Message::Error(kQueueFull, "task '" + options_.task_name + "' does not read: more than the " +
                                     std::to_string(options_.max_queue) +
                                     " bytes that RUNTIME_MANAGER_MAX_QUEUE sets would "
                                     "wait for it"),
      "the connection ended: the task does not read");
  return false;
}

bool Link::FitsMessage(Way way, std::size_t size) {
  const bool to_task = way == Way::kToTask;
  const std::string task = "task '" + options_.task_name + "'";
  const std::string bound = " over the bound of " + std::to_string(options_.max_message) +
                            " bytes that RUNTIME_MANAGER_MAX_MESSAGE sets";
  if (size > (to_task ? options_.max_message : options_.task_max_message)) {
    EndLocked(to_task
                  ? Message::Error(kMessageTooLong, "a message to " + task + " is" + bound)
                  : Message::Error(kConnectionLost, task + " closed the connection, or has ended"),
              "the connection ended at a message that is too large");
    return false;
  }
  if (size > options_.max_message) {
    EndLocked(Message::Error(kMessageTooLong, task + " sent a line" + bound),
              "the connection ended at a message that is too large");
    return false;
  }
  return true;
}

bool Link::BreaksQueue(Way way, std::size_t size) const {
  return way == Way::kToTask && waiting_ + size > options_.max_queue;
}

void Link::Put(Way way, Parcel&& parcel, Duration delay) {
  Lane& lane = LaneOf(way);
  lane.last_due = std::max(loop_->Now() + delay, lane.last_due);
  parcel.due = lane.last_due;
  waiting_ += way == Way::kToTask ? parcel.text.size() : 0;
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
  const bool is_stopped = is_stopped_ && way == Way::kToTask;
  if (parcels.empty() || is_stopped || parcels.front().due > loop_->Now()) {
    return std::nullopt;
  }
  Parcel parcel = std::move(parcels.front());
  parcels.pop_front();
  waiting_ -= way == Way::kToTask ? parcel.text.size() : 0;
  return parcel;
}

void Link::Deliver(Way way) {
  const std::optional<Parcel> parcel = TakeDue(way);
  if (!parcel) {
    return;
  }
  if (!parcel->end) {
    Hand(way, Message::FromBase64(parcel->text));
  } else if (const auto client = client_) {
    client->Disconnect(parcel->end);
  }
}

// The ends may be let go of inside.
void Link::Hand(Way way, const Message& message) const {
  const auto client = client_;
  const auto server = server_;
  const MessageHandler play = play_;
  if (client && way == Way::kFromTask) {
    client->Receive(Message(message));
  } else if (play && way == Way::kToTask) {
    play(message);
  } else if (server && way == Way::kToTask) {
    server->Receive(Message(message));
  }
}

void Link::SetStopped(bool is_stopped) {
  std::vector<Message> unsent;
  {
    const std::lock_guard lock(mutex_);
    if (has_ended_ || is_stopped_ == is_stopped) {
      return;
    }
    is_stopped_ = is_stopped;
    transcript_->SetTime(loop_->Now());
    transcript_->Note(is_stopped ? "the task is stopped" : "the task goes on");
    for (const Parcel& parcel : LaneOf(Way::kToTask).parcels) {
      Schedule(Way::kToTask, parcel.due);
    }
    unsent.swap(unsent_);
  }
  for (const Message& message : unsent) {
    Send(Way::kFromTask, message);
  }
}

void Link::EndTask(int code, const std::string& how, const std::string& last_words) {
  std::string text = "the task '" + options_.task_name + "' (process 1) " + how + " after " +
                     TextOfDuration(loop_->Now() - started_);
  text += last_words.empty() ? "" : "; its last words: " + last_words;
  End(Message::Error(code, text), "the task " + how);
}

void Link::End(Message::Error error, const std::string& note) {
  const std::lock_guard lock(mutex_);
  EndLocked(std::move(error), note);
}

// What the task has sent comes first, also what was delayed; what was sent to it is lost.
void Link::EndLocked(Message::Error error, const std::string& note) {
  if (has_ended_) {
    return;
  }
  has_ended_ = true;
  transcript_->SetTime(loop_->Now());
  transcript_->Note(note);
  LaneOf(Way::kToTask).parcels.clear();
  waiting_ = 0;
  Lane& lane = LaneOf(Way::kFromTask);
  lane.last_due = loop_->Now();
  for (Parcel& parcel : lane.parcels) {
    parcel.due = lane.last_due;
    Schedule(Way::kFromTask, lane.last_due);
  }
  Put(Way::kFromTask, {{}, {}, std::move(error)}, {});
}

}  // namespace tarv::testing::details
