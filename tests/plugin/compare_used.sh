#!/bin/sh
# compare_used.sh NM PLUGIN LIBRARY LIST: fails unless PLUGIN asks LIBRARY for every name that it
# exports, but for those that match a line of LIST.
set -eu
nm=$1 plugin=$2 library=$3 list=$4
names() { "$nm" --dynamic --demangle --format=posix "$@" | sed -E 's/ [A-Zuvw]( [0-9a-f]+)* *$//' | LC_ALL=C sort -u; }
names --undefined-only "$plugin" > asked
names --defined-only --extern-only "$library" > exported
sed -e '/^#/d' -e '/^$/d' "$list" > patterns
unused=$(LC_ALL=C comm -23 exported asked | grep -Evxf patterns || true)
[ -z "$unused" ] || {
  printf 'The plug-in of this test must use, too, what the library exports:\n%s\n' "$unused" >&2
  exit 1
}
