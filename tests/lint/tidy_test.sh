#!/usr/bin/env bash
# tidy_test.sh TIDY: what the lint makes of joined files: it names the file and the line of a fault, finds
# what clang-tidy looks for in main files only, and is content with constants of one name.
set -euo pipefail
tidy=$1
command -v clang-tidy > /dev/null || { echo "skipped: there is no clang-tidy here" >&2; exit 77; }
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

fail() {
  printf 'tidy_test.sh: %s\n' "$*" >&2
  exit 1
}

# look FILE...: what is found in these files of $work.
look() {
  local file separator=
  for file in "$@"; do
    printf '%s\n{"directory": "%s", "file": "%s", "command": "c++ -Wall -o %s.o -c %s"}' "$separator" "$work" \
      "$work/$file" "$file" "$work/$file"
    separator=,
  done | { echo '['; cat; echo ']'; } > "$work/database.json"
  printf "$work/%s\n" "$@" | "$tidy" "$work/database.json" "$work/units" '-*,misc-*,clang-diagnostic-*'
}

printf '#include "good.h"\nnamespace {\nconstexpr int kOne = 1;\n}\nint Good() { return kOne; }\n' > "$work/good.cpp"
printf 'int Good();\n' > "$work/good.h"
printf 'namespace {\nconstexpr int kOne = 2;\n}\nint Other() { return kOne; }\n' > "$work/same_name.cpp"
printf 'int Plain() { return 3; }\n\nint Bad(int unused) { return 4; }\n' > "$work/parameter.cpp"
printf 'namespace a {\nint F();\n}\nusing a::F;\n' > "$work/using.cpp"
printf 'int Broken() { return undeclared; }\n' > "$work/broken.cpp"

found=$(look good.cpp same_name.cpp) || fail "constants of one name are a finding: $found"
[ -z "$found" ] || fail "without a finding it says: $found"
! found=$(look good.cpp parameter.cpp same_name.cpp using.cpp broken.cpp) || fail "it finds nothing"
for expected in 'parameter.cpp:3:13: .*misc-unused-parameters' 'using.cpp:4:10: .*misc-unused-using-decls' \
  'broken.cpp:1:23: .*clang-diagnostic-error'; do
  grep -qE "^$work/$expected" <<< "$found" || fail "it does not find $expected in: $found"
done
! grep -q kOne <<< "$found" || fail "it finds two constants of one name: $found"
