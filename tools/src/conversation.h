// What the verbs that talk to a task share.
#ifndef TARVCTL_CONVERSATION_H
#define TARVCTL_CONVERSATION_H

#include <cw/encodable_value.h>
#include <tarv/calls/caller.h>
#include <vorpc/message.h>

#include <string>

#include "output.h"
#include "request.h"
#include "session.h"

namespace tarvctl {

using AnyMethod = tarv::Method<cw::EncodableValue(cw::EncodableValue), cw::EncodableValue>;
using AnyOutcome = tarv::Outcome<cw::EncodableValue>;

// The status to exit with for a call that has ended without a value.
int StatusOf(const tarv::CallError& error);
// Says on standard error how the call has failed, with the data of the task's error.
void ComplainAbout(const tarv::CallError& error, const Request& request, const Output& output);

// Shows a result, as the request wants it.
void PrintValue(const cw::EncodableValue& value, const Request& request, Output& output);
// A value on one line of news.
std::string ShortJson(const cw::EncodableValue& value, bool typed);
// A session that shows the task's notifications as news.
Session::OnNotification TellNotifications(const Request& request, const Output& output);

// Calls one method of the task, shows its progress as news, and runs until it has ended.
AnyOutcome CallAndWait(Session& session, const AnyMethod& method, cw::EncodableValue params,
                       const Request& request, const Output& output);

}  // namespace tarvctl

#endif  // TARVCTL_CONVERSATION_H
