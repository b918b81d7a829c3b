#include "commands.h"

#include "verbs.h"

namespace tarvctl {
namespace {

// ---- Arguments that several verbs have ----

void AddTask(CLI::App& app, Request& request) {
  app.add_option("TASK", request.task, "name of a task, or exec:PATH for the program at PATH")
      ->required();
}

void AddParams(CLI::App& app, Request& request) {
  app.add_option("PARAMS", request.params, "parameters as JSON; - reads them from standard input");
}

void AddTimeout(CLI::App& app, Request& request) {
  app.add_option("--timeout", request.timeout, "time for all of it, the handshake included")
      ->type_name("TIME")
      ->capture_default_str();
}

void AddJson(CLI::App& app, Request& request) {
  app.add_flag("--json", request.json, "JSON on one line, also on a terminal");
}

void AddTyped(CLI::App& app, Request& request) {
  app.add_flag("--typed", request.typed, "show and take exact kinds: {\"int64\": 5}");
}

void AddBytes(CLI::App& app, Request& request) {
  app.add_option("--bytes", request.bytes, "add the file's content to PARAMS as a byte list")
      ->type_name("NAME=FILE");
}

void AddMethod(CLI::App& app, Request& request) {
  app.add_option("METHOD", request.method, "method's name")->required();
}

// ---- Verbs ----

void DefineTasks(CLI::App& app, Request& request) {
  app.add_flag("--names", request.names, "only the names of what can be started");
  AddJson(app, request);
}

void DefineCall(CLI::App& app, Request& request) {
  AddTask(app, request);
  AddMethod(app, request);
  AddParams(app, request);
  AddBytes(app, request);
  AddTimeout(app, request);
  AddTyped(app, request);
  AddJson(app, request);
}

void DefineNotify(CLI::App& app, Request& request) {
  AddTask(app, request);
  AddMethod(app, request);
  AddParams(app, request);
  AddBytes(app, request);
  AddTimeout(app, request);
  AddTyped(app, request);
}

void DefineListen(CLI::App& app, Request& request) {
  AddTask(app, request);
  app.add_option("METHOD", request.methods, "only notifications of these methods");
  app.add_option("--count", request.count, "end after so many")->type_name("NUMBER");
  AddTimeout(app, request);
  AddTyped(app, request);
  AddJson(app, request);
}

void DefineQuestion(CLI::App& app, Request& request) {
  AddTask(app, request);
  AddTimeout(app, request);
  AddTyped(app, request);
  AddJson(app, request);
}

void AddFormat(CLI::App& app, Request& request) {
  app.add_option("--format", request.format, "hex or base64")
      ->type_name("FORMAT")
      ->check(CLI::IsMember({"hex", "base64"}));
}

void DefineDecode(CLI::App& app, Request& request) {
  app.add_option("INPUT", request.input, "text, file, or - for standard input")->required();
  AddFormat(app, request);
  AddTyped(app, request);
  AddJson(app, request);
}

void DefineEncode(CLI::App& app, Request& request) {
  app.add_option("INPUT", request.input, "JSON, or - for standard input")->required();
  AddFormat(app, request);
  AddTyped(app, request);
}

void DefineDoctor(CLI::App& app, Request& request) {
  app.add_option("TASK", request.task, "also looks at this task, and shakes hands with it");
  AddTimeout(app, request);
}

void DefineIntents(CLI::App& app, Request& request) { AddJson(app, request); }

void DefineInvoke(CLI::App& app, Request& request) {
  app.add_option("NAME", request.name, "intent's name")->required();
  AddParams(app, request);
  AddTimeout(app, request);
  AddJson(app, request);
}

void DefineOpen(CLI::App& app, Request& request) {
  app.add_option("URI", request.uri, "absolute URI")->required();
  AddTimeout(app, request);
  AddJson(app, request);
}

void DefineTrace(CLI::App& app, Request& request) {
  app.add_option("FILE", request.file, "record that RUNTIME_MANAGER_TRACE has written")->required();
  app.add_option("--task", request.only_task, "only this task")->type_name("TASK");
  app.add_option("--method", request.method, "only this method")->type_name("METHOD");
  app.add_flag("--errors", request.errors, "only what ended with an error, and ends of tasks");
  app.add_option("--slower", request.slower, "only calls that took longer")->type_name("TIME");
  app.add_option("--since", request.since, "only what came later after the record's begin")
      ->type_name("TIME");
  app.add_flag("--totals", request.totals, "only the sums by method");
  app.add_flag("--follow", request.follow, "go on as the record grows, until Ctrl-C");
  app.add_flag("--json", request.json, "a line of JSON for each message, and one of sums");
  app.add_flag("--typed", request.typed, "in JSON, show exact kinds: {\"int64\": 5}");
  app.add_option("--html", request.html, "write a page that shows it all")->type_name("FILE");
  app.add_option("--perfetto", request.perfetto, "write a trace that viewers of performance open")
      ->type_name("FILE");
  app.add_option("--redact", request.redact,
                 "print the record without what lies there: params.password")
      ->type_name("PATH");
}

void DefineReplay(CLI::App& app, Request& request) {
  app.add_option("FILE", request.file, "record that RUNTIME_MANAGER_TRACE has written")->required();
  app.add_option("--task", request.task, "task to play it against, or exec:PATH")
      ->type_name("TASK")
      ->required();
  app.add_option("--only", request.only_task, "the record's task, where it has several")
      ->type_name("NAME");
  app.add_flag("--rate", request.rate, "keep the recorded pauses");
  AddTimeout(app, request);
  AddTyped(app, request);
}

void DefineShell(CLI::App& app, Request& request) {
  AddTask(app, request);
  AddTimeout(app, request);
  AddTyped(app, request);
}

}  // namespace

const std::vector<Verb>& AllVerbs() {
  static const std::vector<Verb> kVerbs{
      {"tasks", "what can be started, and what is wrong with the rest",
       "Lists the files in the folders of tasks, with the reason why one cannot be started.",
       &DefineTasks, &RunTasks},
      {"call", "call a method of a task, and print the result",
       "Starts the task, shakes hands, sends the request and prints its result as JSON. Progress "
       "and notifications are shown on standard error meanwhile. Ctrl-C cancels the request.",
       &DefineCall, &RunCall},
      {"notify", "send a notification to a task",
       "Starts the task, sends the notification, and ends when the task has got it.", &DefineNotify,
       &RunNotify},
      {"listen", "print what a task tells unasked",
       "Starts the task and prints its notifications, a line of JSON each, until it ends or "
       "Ctrl-C.",
       &DefineListen, &RunListen},
      {"methods", "the methods of a task",
       "Prints what the task answers to $/describe. A task without a tarv::Service has no "
       "description.",
       &DefineQuestion, &RunMethods},
      {"metrics", "how a task's requests have gone",
       "Prints what the task answers to $/metrics. The task is started for it: its counts begin "
       "with this question.",
       &DefineQuestion, &RunMetrics},
      {"decode", "bytes that travel, as JSON",
       "Takes a message's text form (Base64), a line of a record, or bytes of the standard codec "
       "in hex or Base64, and prints the value as JSON.",
       &DefineDecode, &RunDecode},
      {"encode", "JSON as bytes that travel",
       "Prints the bytes of the standard codec for a JSON value, in Base64 unless told.",
       &DefineEncode, &RunEncode},
      {"intents", "the intents that applications own", "Lists the intents, and whether they live.",
       &DefineIntents, &RunIntents},
      {"invoke", "invoke an intent, and print the answer",
       "Passes PARAMS, a JSON object, to the owner of the intent.", &DefineInvoke, &RunInvoke},
      {"open", "open a URI", "Invokes OpenURI, which always has an owner.", &DefineOpen, &RunOpen},
      {"doctor", "what is amiss on this workstation, and what to do",
       "Looks at everything that a task needs, a line a check. Exits with 1 when one is wrong.",
       &DefineDoctor, &RunDoctor},
      {"trace", "a record of messages, decoded and summed up",
       "Shows what RUNTIME_MANAGER_TRACE=FILE has recorded: each message once, each answer with "
       "its request's method and the time that it took, what was never answered, and how tasks "
       "ended; "
       "then the sums by method.",
       &DefineTrace, &RunTrace},
      {"replay", "play a record against a task, and compare the answers",
       "Sends the task what the application of the record has sent, and no request before the "
       "answers have come that had come before it. Shows where an answer differs, and exits with 1 "
       "then. Ids and times are not compared.",
       &DefineReplay, &RunReplay},
      {"shell", "talk with a task, line by line",
       "Starts the task and calls what is typed: METHOD PARAMS. Several calls may be on their way. "
       "Tab completes the names of methods; the lines are remembered. On its own, this verb reads "
       "standard input. Type help for the rest.",
       &DefineShell, &RunShell},
  };
  return kVerbs;
}

void DefineCommands(CLI::App& app, Request& request) {
  app.require_subcommand(1);
  for (const Verb& verb : AllVerbs()) {
    CLI::App* const sub = app.add_subcommand(verb.name, verb.summary);
    verb.define(*sub, request);
  }
}

}  // namespace tarvctl
