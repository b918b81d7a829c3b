#include "conversation.h"

#include <QtCore/QCoreApplication>
#include <QtCore/QTimer>
#include <optional>
#include <sstream>
#include <utility>

#include "exit_status.h"
#include "interrupt.h"
#include "json.h"

namespace tarvctl {
namespace {

// What a task that was told to cancel gets to hear of it before it is stopped.
constexpr int kCancelGraceMs = 300;

}  // namespace

int StatusOf(const tarv::CallError& error) {
  switch (error.GetReason()) {
    case tarv::CallReason::kAnswered:
    case tarv::CallReason::kBadAnswer:
      return kAnsweredWithError;
    case tarv::CallReason::kBadArguments:
      return kUsage;
    case tarv::CallReason::kNotStarted:
    case tarv::CallReason::kNeverConnected:
    case tarv::CallReason::kCrashLoop:
      return kNotConnected;
    case tarv::CallReason::kTimedOut:
      return kTimedOut;
    case tarv::CallReason::kCancelled:
      return kInterrupted;
    default:
      return kTaskEnded;
  }
}

void ComplainAbout(const tarv::CallError& error, const Request& request, const Output& output) {
  if (error.GetReason() == tarv::CallReason::kCancelled) {
    output.Complain("cancelled");
    return;
  }
  output.Complain(error.what());
  if (!error.GetData().IsNull()) {
    output.Tell("data " + ShortJson(error.GetData(), request.typed));
  }
}

void PrintValue(const cw::EncodableValue& value, const Request& request, Output& output) {
  output.PrintLine(ToText(ToJson(value, request.typed), output.IsTerminal() && !request.json));
}

std::string ShortJson(const cw::EncodableValue& value, bool typed) {
  try {
    return ToText(ToJson(value, typed), false);
  } catch (const JsonError&) {
    std::ostringstream text;
    text << value;
    return text.str();
  }
}

Session::OnNotification TellNotifications(const Request& request, const Output& output) {
  return [&request, &output](const vorpc::Message::Notification& notification) {
    output.Tell(output.PaintNews(Colour::kCyan, "notification " + notification.method) + ' ' +
                ShortJson(notification.params, request.typed));
  };
}

namespace {

// The task may still answer what was cancelled; that shall be seen.
void StayForLateAnswer(Session& session) {
  session.on_message = [](const vorpc::Message& message) {
    if (message.GetResponse() != nullptr) {
      QCoreApplication::quit();
    }
  };
  QTimer::singleShot(kCancelGraceMs, [] { QCoreApplication::quit(); });
}

}  // namespace

AnyOutcome CallAndWait(Session& session, const AnyMethod& method, cw::EncodableValue params,
                       const Request& request, const Output& output) {
  const auto call = session.GetCaller().Call(
      method, std::move(params),
      tarv::CallOptions().Timeout(ParseDuration(request.timeout, "--timeout")));
  std::optional<AnyOutcome> outcome;
  call.OnProgress([&request, &output](const cw::EncodableValue& step) {
    output.Tell(output.PaintNews(Colour::kDim, "progress") + ' ' + ShortJson(step, request.typed));
  });
  const Interrupt interrupt([&call] { call.Cancel(); });
  call.Then([&outcome, &session](AnyOutcome ended) {
    const bool cancelled = !ended && ended.GetError().GetReason() == tarv::CallReason::kCancelled;
    outcome.emplace(std::move(ended));
    if (cancelled) {
      StayForLateAnswer(session);
    } else {
      QCoreApplication::quit();
    }
  });
  QCoreApplication::exec();
  return *std::move(outcome);
}

}  // namespace tarvctl
