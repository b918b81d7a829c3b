#include "generated.h"

#include "exit_status.h"

namespace tarvctl {

void DefineGenerators(CLI::App& app, Request& request) {
  app.add_subcommand("completion", "print the completion of Bash: source <(tarvctl completion)");
  app.add_subcommand("man", "print a man page: tarvctl man call | man -l -")
      ->add_option("VERB", request.name, "verb to describe; all of tarvctl without one");
}

int RunGenerator(const CLI::App& app, const std::string& name, const Request& request,
                 Output& output) {
  output.Print(name == "man" ? MakeManPage(app, request.name) : MakeCompletion(app));
  return kDone;
}

}  // namespace tarvctl
