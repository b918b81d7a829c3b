// call, notify, methods, metrics: one question to a task.
#include <tarv/calls/call_error.h>

#include <string>
#include <string_view>

#include "conversation.h"
#include "exit_status.h"
#include "input.h"
#include "shapes.h"
#include "verbs.h"

namespace tarvctl {
namespace {

constexpr std::string_view kDescribeMethod = "$/describe";
constexpr std::string_view kMetricsMethod = "$/metrics";

Session StartSession(const Request& request, const Output& output) {
  return Session(request.task, ParseDuration(request.timeout, "--timeout"),
                 TellNotifications(request, output));
}

int Fail(const tarv::CallError& error, const Request& request, const Output& output) {
  ComplainAbout(error, request, output);
  return StatusOf(error);
}

bool IsUnknownMethod(const tarv::CallError& error) {
  return error.GetReason() == tarv::CallReason::kAnswered &&
         error.GetCode() == vorpc::Message::kUnknownMethod;
}

// Asks one of the questions that every Service answers.
AnyOutcome AskService(std::string_view method, const Request& request, const Output& output) {
  Session session = StartSession(request, output);
  return CallAndWait(session, {method}, {}, request, output);
}

int FailToDescribe(const tarv::CallError& error, const Request& request, const Output& output) {
  if (!IsUnknownMethod(error)) {
    return Fail(error, request, output);
  }
  output.Complain("the task '" + request.task +
                  "' has no description: it answers without a tarv::Service (docs/calls.md)");
  return kAnsweredWithError;
}

}  // namespace

int RunCall(const Request& request, Output& output) {
  cw::EncodableValue params = ReadParams(request);
  Session session = StartSession(request, output);
  const AnyOutcome outcome =
      CallAndWait(session, {request.method}, std::move(params), request, output);
  if (!outcome) {
    return Fail(outcome.GetError(), request, output);
  }
  PrintValue(*outcome, request, output);
  return kDone;
}

// The task's answer to a question that follows says that it has got the notification.
int RunNotify(const Request& request, Output& output) {
  const cw::EncodableValue params = ReadParams(request);
  Session session = StartSession(request, output);
  session.GetClient().SendNotify(request.method, params);
  const AnyOutcome barrier = CallAndWait(session, {kDescribeMethod}, {}, request, output);
  if (!barrier && barrier.GetError().GetReason() != tarv::CallReason::kAnswered) {
    return Fail(barrier.GetError(), request, output);
  }
  return kDone;
}

int RunMethods(const Request& request, Output& output) {
  const AnyOutcome outcome = AskService(kDescribeMethod, request, output);
  if (!outcome) {
    return FailToDescribe(outcome.GetError(), request, output);
  }
  if (!output.IsTerminal() || request.json) {
    PrintValue(*outcome, request, output);
    return kDone;
  }
  for (const std::string& line : DescribeMethods(*outcome, output)) {
    output.PrintLine(line);
  }
  return kDone;
}

int RunMetrics(const Request& request, Output& output) {
  const AnyOutcome outcome = AskService(kMetricsMethod, request, output);
  if (!outcome) {
    return FailToDescribe(outcome.GetError(), request, output);
  }
  PrintValue(*outcome, request, output);
  return kDone;
}

}  // namespace tarvctl
