#include <tarv/testing/loopback.h>

#include <QtCore/QAbstractEventDispatcher>
#include <QtCore/QCoreApplication>
#include <QtCore/QEvent>
#include <csignal>
#include <utility>

#include "link.h"
#include "task_end.h"

namespace tarv::testing {
namespace {

// How a platform reports the loss of a task.
constexpr int kExited = -32001;
constexpr int kKilled = -32002;
constexpr int kConnectionLost = -32003;

// Rounds of Qt's event loop in one Pump, at most: some events, like the deletion of an object that
// runs, wait for an event loop further out.
constexpr int kMostRounds = 1000;

// Runs the events that Qt has ready. True when there may be more.
bool RunQtEvents() {
  if (QCoreApplication::instance() == nullptr) {
    return false;
  }
  QCoreApplication::processEvents();
  QCoreApplication::sendPostedEvents(nullptr, QEvent::DeferredDelete);
  auto* const dispatcher = QAbstractEventDispatcher::instance();
  return dispatcher != nullptr && dispatcher->hasPendingEvents();
}

}  // namespace

void PumpWithQt(ManualLoop& loop) {
  loop.Pump();
  for (int round = 0; (RunQtEvents() || loop.HasWork()) && round < kMostRounds; ++round) {
    loop.Pump();
  }
}

NextMessage& NextMessage::Delay(Duration duration) {
  fault_->delay = duration;
  return *this;
}

NextMessage& NextMessage::Drop() {
  fault_->drops = true;
  return *this;
}

NextMessage& NextMessage::Corrupt() {
  fault_->corrupts = true;
  return *this;
}

NextMessage& NextMessage::Truncate() {
  fault_->truncates = true;
  return *this;
}

NextMessage& NextMessage::Duplicate() {
  fault_->duplicates = true;
  return *this;
}

Loopback::Loopback(const LoopbackOptions& options, std::shared_ptr<ManualLoop> loop)
    : options_(options), link_(std::make_shared<details::Link>(std::move(loop), options)) {
  link_->Open();
}

Loopback::~Loopback() {
  DropCaller();
  link_->Close();
}

std::shared_ptr<vorpc::IClient> Loopback::GetClient() { return link_->GetClient(); }

std::shared_ptr<vorpc::IServer> Loopback::GetServer() const { return link_->GetServer(); }

std::shared_ptr<Loop> Loopback::GetLoop() { return link_->GetLoop(); }

ManualLoop& Loopback::GetManualLoop() const { return *link_->GetLoop(); }

void Loopback::Pump() { PumpWithQt(GetManualLoop()); }

void Loopback::Advance(Duration duration) {
  Pump();
  GetManualLoop().Advance(duration);
  Pump();
}

NextMessage Loopback::Next() { return NextMessage(link_->AddFault(std::nullopt)); }

NextMessage Loopback::Next(Way way) { return NextMessage(link_->AddFault(way)); }

std::size_t Loopback::CountUnusedFaults() const { return link_->CountUnusedFaults(); }

void Loopback::KillTask(int signal) { KillTask(signal, {}); }

void Loopback::KillTask(int signal, const std::string& last_words) {
  if (signal == SIGSTOP || signal == SIGCONT) {
    link_->SetStopped(signal == SIGSTOP);
    return;
  }
  link_->EndTask(kKilled, details::TextOfSignal(signal), last_words);
}

void Loopback::ExitTask(int status, const std::string& last_words) {
  link_->EndTask(kExited, details::TextOfStatus(status), last_words);
}

void Loopback::RefuseToStart(const std::string& why) {
  link_->End(vorpc::Message::Error(vorpc::Message::kInternalError, why),
             "the task did not start: " + why);
}

void Loopback::HangUp() {
  link_->End(vorpc::Message::Error(kConnectionLost, "task '" + options_.task_name +
                                                        "' closed the connection, or has ended"),
             "the task closed the connection");
}

void Loopback::EndManager() {
  link_->End(vorpc::Message::Error(kConnectionLost, "the manager was destroyed"),
             "the application has destroyed its manager");
  if (const auto client = link_->GetClient()) {
    client->EndManager();
  }
}

void Loopback::PlayTask(std::function<void(const vorpc::Message&)> on_message) {
  link_->PlayTask(std::move(on_message));
}

void Loopback::SendAsTask(const vorpc::Message& message) { link_->Send(Way::kFromTask, message); }

std::string Loopback::GetTranscript() const { return link_->GetTranscript()->GetText(); }

void Loopback::ClearTranscript() { link_->GetTranscript()->Clear(); }

std::unique_ptr<Caller> Loopback::MakeCaller() {
  return std::make_unique<Caller>(
      GetClient(), GetLoop(),
      CallerOptions().TaskName(options_.task_name).ConnectTimeout(options_.connect_timeout));
}

World::TellTranscript Loopback::GetTranscriptTeller() const {
  return [transcript = link_->GetTranscript()] { return transcript->GetText(); };
}

}  // namespace tarv::testing
