// Man pages, made of the commands.
#include <algorithm>
#include <cctype>
#include <string>

#include "commands.h"
#include "generated.h"

namespace tarvctl {
namespace {

constexpr char kExitStatus[] = R"(.SH "EXIT STATUS"
.TP
.B 0
done
.TP
.B 1
the task answered with an error, or what was compared differs
.TP
.B 2
arguments or input cannot be understood
.TP
.B 3
the task could not be started, or refuses the handshake
.TP
.B 4
timed out
.TP
.B 5
the task ended, or the connection to it was lost
.TP
.B 130
interrupted by Ctrl-C
)";

constexpr char kEnvironment[] = R"(.SH ENVIRONMENT
.TP
.B NO_COLOR
when set, nothing is coloured
.TP
.B RUNTIME_MANAGER_TASK_PATH
folders of tasks, separated by colons
.TP
.B RUNTIME_MANAGER_TRACE
file that every message is recorded in
)";

// Text for roff: neither a command nor a typographic dash.
std::string Roff(const std::string& text) {
  std::string escaped;
  for (const char character : text) {
    if (character == '\\') {
      escaped += "\\e";
    } else if (character == '-') {
      escaped += "\\-";
    } else if (character == '\'' && escaped.empty()) {
      escaped += "\\(aq";
    } else {
      escaped += character;
    }
  }
  return (escaped.rfind('.', 0) == 0 ? "\\&" : "") + escaped;
}

std::string Upper(std::string text) {
  std::transform(text.begin(), text.end(), text.begin(),
                 [](unsigned char c) { return static_cast<char>(std::toupper(c)); });
  return text;
}

std::string Head(const std::string& name, const std::string& summary) {
  return ".TH " + Upper(Roff(name)) + " 1 \"\" tarv \"User Commands\"\n.SH NAME\n" + Roff(name) +
         " \\- " + Roff(summary) + "\n.SH SYNOPSIS\n";
}

bool HasValue(const CLI::Option& option) { return option.get_expected_max() > 0; }

std::string Synopsis(const CLI::App& verb) {
  std::string text = ".B tarvctl " + verb.get_name() + "\n[\\fIOPTION\\fR]...";
  for (const CLI::Option* const option : verb.get_options()) {
    if (option->get_positional()) {
      const bool needed = option->get_required();
      const bool many = !needed && option->get_expected_max() > 1;
      text.append(needed ? " " : " [").append("\\fI" + option->get_name(true) + "\\fR");
      text.append(many ? "..." : "").append(needed ? "" : "]");
    }
  }
  return text + '\n';
}

std::string Arguments(const CLI::App& verb) {
  std::string text = ".SH OPTIONS\n";
  for (const CLI::Option* const option : verb.get_options()) {
    const std::string name = option->get_positional() ? option->get_name(true) : option->get_name();
    const bool show_type = !option->get_positional() && HasValue(*option);
    const std::string by_default = option->get_default_str();
    text += ".TP\n.B " + Roff(name) +
            (show_type ? " \\fI" + option->get_type_name() + "\\fR" : "") + '\n' +
            Roff(option->get_description()) +
            (by_default.empty() ? "" : " (" + Roff(by_default) + " unless told)") + '\n';
  }
  return text;
}

std::string PageOfVerb(const CLI::App& verb) {
  const auto& verbs = AllVerbs();
  const auto known = std::find_if(verbs.begin(), verbs.end(), [&verb](const Verb& candidate) {
    return verb.get_name() == candidate.name;
  });
  const std::string text = known == verbs.end() ? verb.get_description() : known->text;
  return Head("tarvctl-" + verb.get_name(), verb.get_description()) + Synopsis(verb) +
         ".SH DESCRIPTION\n" + Roff(text) + '\n' + Arguments(verb) + kExitStatus + kEnvironment +
         ".SH \"SEE ALSO\"\n.BR tarvctl (1)\n";
}

std::string PageOfAll(const CLI::App& app) {
  std::string text = Head("tarvctl", app.get_description()) +
                     ".B tarvctl\n\\fIVERB\\fR [\\fIARGUMENT\\fR]...\n.SH VERBS\n";
  std::string others = ".SH \"SEE ALSO\"\n";
  const auto verbs = app.get_subcommands({});
  for (const CLI::App* const verb : verbs) {
    text += ".TP\n.B " + verb->get_name() + '\n' + Roff(verb->get_description()) + '\n';
    others += ".BR tarvctl\\-" + verb->get_name() + (verb == verbs.back() ? " (1)\n" : " (1),\n");
  }
  return text + Arguments(app) + kExitStatus + kEnvironment + others;
}

}  // namespace

std::string MakeManPage(const CLI::App& app, const std::string& verb) {
  if (verb.empty()) {
    return PageOfAll(app);
  }
  const auto verbs = app.get_subcommands({});
  const auto found = std::find_if(verbs.begin(), verbs.end(), [&verb](const CLI::App* candidate) {
    return candidate->get_name() == verb;
  });
  if (found == verbs.end()) {
    throw UsageError("there is no verb '" + verb + "': tarvctl --help lists them");
  }
  return PageOfVerb(**found);
}

}  // namespace tarvctl
