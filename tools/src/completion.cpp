// The completion of Bash, made of the commands.
#include <algorithm>
#include <string>
#include <vector>

#include "generated.h"

namespace tarvctl {
namespace {

std::string LongNames(const CLI::App& app) {
  std::string names;
  for (const CLI::Option* const option : app.get_options()) {
    for (const std::string& name : option->get_lnames()) {
      names += (names.empty() ? "--" : " --") + name;
    }
  }
  return names;
}

// The options of the verb that take a value, as a pattern of case.
std::string WithValue(const CLI::App& app, bool files) {
  std::string pattern;
  for (const CLI::Option* const option : app.get_options()) {
    const bool is_file =
        option->get_type_name() == "FILE" || option->get_type_name() == "NAME=FILE";
    if (option->get_positional() || option->get_expected_max() == 0 || is_file != files) {
      continue;
    }
    for (const std::string& name : option->get_lnames()) {
      pattern += (pattern.empty() ? "--" : "|--") + name;
    }
  }
  return pattern;
}

// What the verb's arguments without a name are.
std::string Positionals(const CLI::App& app) {
  std::string names;
  for (const CLI::Option* const option : app.get_options()) {
    if (option->get_positional()) {
      names += (names.empty() ? "" : " ") + option->get_name(true);
    }
  }
  return names;
}

std::string CaseOf(const CLI::App& verb) {
  return "    " + verb.get_name() + ")\n      options='" + LongNames(verb) + "'\n      words='" +
         Positionals(verb) + "'\n      files='" + WithValue(verb, true) + "'\n      values='" +
         WithValue(verb, false) + "'\n      ;;\n";
}

constexpr char kEnd[] = R"bash(  esac
  # After an option with a value: that value.
  local previous=${COMP_WORDS[COMP_CWORD-1]}
  if [[ -n $files && $previous =~ ^($files)$ ]]; then
    mapfile -t COMPREPLY < <(compgen -f -- "$current")
    return
  fi
  [[ -n $values && $previous =~ ^($values)$ ]] && return
  if [[ $current == -* ]]; then
    mapfile -t COMPREPLY < <(compgen -W "$options" -- "$current")
    return
  fi
  # How many words without a dash stand before this one says which argument it is.
  local position=0 i
  for ((i = 2; i < COMP_CWORD; i++)); do
    [[ ${COMP_WORDS[i]} == -* ]] || ((position++))
    [[ -n $files$values && ${COMP_WORDS[i]} =~ ^($files|$values)$ ]] && ((i++))
  done
  set -- $words
  shift "$((position < $# ? position : $#))"
  case ${1-} in
    TASK) mapfile -t COMPREPLY < <(compgen -W "$(tarvctl tasks --names 2>/dev/null)" -- "$current") ;;
    FILE|INPUT) mapfile -t COMPREPLY < <(compgen -f -- "$current") ;;
    VERB) mapfile -t COMPREPLY < <(compgen -W "$verbs" -- "$current") ;;
  esac
}
complete -F _tarvctl tarvctl
)bash";

}  // namespace

std::string MakeCompletion(const CLI::App& app) {
  std::string verbs;
  std::string cases;
  for (const CLI::App* const verb : app.get_subcommands({})) {
    verbs += (verbs.empty() ? "" : " ") + verb->get_name();
    cases += CaseOf(*verb);
  }
  return "# Completion of tarvctl for Bash; made by tarvctl completion.\n"
         "_tarvctl() {\n"
         "  local current=${COMP_WORDS[COMP_CWORD]} options='' words='' files='' values=''\n"
         "  local verbs='" +
         verbs +
         "'\n"
         "  if ((COMP_CWORD == 1)); then\n"
         "    mapfile -t COMPREPLY < <(compgen -W \"$verbs " +
         LongNames(app) +
         "\" -- \"$current\")\n"
         "    return\n"
         "  fi\n"
         "  case ${COMP_WORDS[1]} in\n" +
         cases + kEnd;
}

}  // namespace tarvctl
