// What each verb does: one function each, which returns the exit status.
#ifndef TARVCTL_VERBS_H
#define TARVCTL_VERBS_H

#include "output.h"
#include "request.h"

namespace tarvctl {

int RunTasks(const Request& request, Output& output);
int RunCall(const Request& request, Output& output);
int RunNotify(const Request& request, Output& output);
int RunListen(const Request& request, Output& output);
int RunMethods(const Request& request, Output& output);
int RunMetrics(const Request& request, Output& output);
int RunDecode(const Request& request, Output& output);
int RunEncode(const Request& request, Output& output);
int RunDoctor(const Request& request, Output& output);
int RunIntents(const Request& request, Output& output);
int RunInvoke(const Request& request, Output& output);
int RunOpen(const Request& request, Output& output);
int RunTrace(const Request& request, Output& output);
int RunReplay(const Request& request, Output& output);
int RunShell(const Request& request, Output& output);

}  // namespace tarvctl

#endif  // TARVCTL_VERBS_H
