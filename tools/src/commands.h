// The one definition of the commands. Parsing, help, the man pages and the completion of Bash all
// come from it.
#ifndef TARVCTL_COMMANDS_H
#define TARVCTL_COMMANDS_H

#include <CLI/CLI.hpp>

#include "output.h"
#include "request.h"

namespace tarvctl {

using Run = int (*)(const Request& request, Output& output);

struct Verb {
  const char* name;
  const char* summary;
  const char* text;  // what the man page says besides
  void (*define)(CLI::App& app, Request& request);
  Run run;
};

const std::vector<Verb>& AllVerbs();
// Adds every verb to `app`; parsing stores in `request`.
void DefineCommands(CLI::App& app, Request& request);

}  // namespace tarvctl

#endif  // TARVCTL_COMMANDS_H
