// tarvctl: talks to tasks by hand, and shows what programs and tasks have said to each other.
#include <QtCore/QCoreApplication>
#include <algorithm>
#include <cstdio>
#include <exception>

#include "commands.h"
#include "exit_status.h"
#include "generated.h"
#include "json.h"

namespace tarvctl {
namespace {

int RunVerb(const CLI::App& app, const Request& request, Output& output) {
  const std::string name = app.get_subcommands().at(0)->get_name();
  const auto& verbs = AllVerbs();
  const auto verb = std::find_if(verbs.begin(), verbs.end(),
                                 [&name](const Verb& known) { return known.name == name; });
  if (verb == verbs.end()) {
    return RunGenerator(app, name, request, output);
  }
  return verb->run(request, output);
}

int Guarded(const CLI::App& app, const Request& request, Output& output) {
  try {
    return RunVerb(app, request, output);
  } catch (const UsageError& error) {
    output.Complain(error.what());
  } catch (const JsonError& error) {
    output.Complain(error.what());
  }
  return kUsage;
}

// The parser's own words for a verb that does not exist are that one is missing.
std::string MistakeIn(const CLI::App& app, const CLI::ParseError& error, const char* first) {
  const bool unknown_verb = first != nullptr && *first != '-' && app.get_subcommands().empty();
  return unknown_verb ? "there is no verb '" + std::string(first) + '\'' : error.what();
}

// What the parser has to say: help is a result, the rest a mistake of the user's.
int ReportParsing(const CLI::App& app, const CLI::ParseError& error, const char* first,
                  Output& output) {
  std::ostringstream help;
  std::ostringstream mistake;
  const int status = app.exit(error, help, mistake);
  output.Print(help.str());
  output.Flush();
  if (status == 0) {
    return kDone;
  }
  output.Complain(MistakeIn(app, error, first));
  output.Tell("tarvctl --help lists the verbs, tarvctl VERB --help what each takes");
  return kUsage;
}

int Main(int argc, char** argv) {
  Output output;
  Request request;
  CLI::App app("tarvctl talks to background tasks, and shows what was said");
  app.set_version_flag("--version", "tarvctl " TARV_VERSION, "Print the version and exit");
  DefineCommands(app, request);
  DefineGenerators(app, request);
  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError& error) {
    return ReportParsing(app, error, argv[1], output);
  }
  const QCoreApplication application(argc, argv);
  const int status = Guarded(app, request, output);
  output.Flush();
  return output.IsBroken() ? kBrokenPipe : status;
}

}  // namespace
}  // namespace tarvctl

int main(int argc, char** argv) {
  try {
    return tarvctl::Main(argc, argv);
  } catch (const std::exception& error) {
    std::fputs("tarvctl: ", stderr);
    std::fputs(error.what(), stderr);
    std::fputs("\n", stderr);
  }
  return tarvctl::kNotConnected;
}
