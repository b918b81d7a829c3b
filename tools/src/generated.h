// What is made by walking the definition of the commands: the completion of Bash, and man pages.
#ifndef TARVCTL_GENERATED_H
#define TARVCTL_GENERATED_H

#include <CLI/CLI.hpp>

#include "output.h"
#include "request.h"

namespace tarvctl {

// Adds the verbs "completion" and "man".
void DefineGenerators(CLI::App& app, Request& request);
int RunGenerator(const CLI::App& app, const std::string& name, const Request& request,
                 Output& output);

std::string MakeCompletion(const CLI::App& app);
// The page of the whole for an empty verb.
std::string MakeManPage(const CLI::App& app, const std::string& verb);

}  // namespace tarvctl

#endif  // TARVCTL_GENERATED_H
