#!/usr/bin/env bash
# compile_alone.sh COMPILER STANDARD LIST FLAG...: compiles each header that LIST names, alone, with all
# warnings as errors; as C only those that are C, which begin with a comment of C. What compiled is not
# compiled again until a header that it includes has changed.
set -euo pipefail
compiler=$1 standard=$2 list=$3
shift 3

if ! [ -x "$compiler" ]; then
  echo "skipped: there is no such compiler here: $compiler" >&2
  exit 77
fi
case $standard in
  c++*) language=c++ ;;
  *) language=c ;;
esac
version=$("$compiler" -dumpfullversion -dumpversion)
passed=passed/$(basename "$compiler")-$version-$standard
mkdir -p "$passed"

is_c() {
  local flag
  for flag in "${flags[@]}"; do
    [ ! -f "${flag#-I}/$1" ] || [ "$(head -c 2 "${flag#-I}/$1")" != '/*' ] || return 0
  done
  return 1
}

# Its dependencies are as old as the day it passed.
is_unchanged() {
  local dependencies
  [ -f "$1" ] || return 1
  dependencies=$(sed -e 's/^[^:]*: *//' -e 's/\\$//' "$1")
  # shellcheck disable=SC2086
  ls $dependencies > /dev/null 2>&1 && [ -z "$(find $dependencies -newer "$1")" ]
}

compile() {
  local header=$1 record=$passed/${1//\//_}.d
  [ "$language" = c++ ] || is_c "$header" || return 0
  ! is_unchanged "$record" || return 0
  rm -f "$record"
  # A unit that declares nothing is no C.
  printf "#include <%s>\ntypedef int compiled;\n" "$header" > "$record.$language"
  "$compiler" -x "$language" -std="$standard" -Wall -Wextra -Wpedantic -Wconversion -Wshadow -Werror \
    -fPIC -fsyntax-only -MMD -MF "$record.new" -DQT_NO_KEYWORDS "${flags[@]}" "$record.$language" ||
    { echo "$header does not compile alone as $standard" >&2; return 1; }
  mv "$record.new" "$record"
}

flags=("$@")
compilation=$(declare -p compiler standard language passed flags; declare -f compile is_c is_unchanged)
tr '\n' '\0' < "$list" | xargs -0 -n 1 -P "$(nproc)" bash -euc "$compilation; compile \"\$1\"" compile
