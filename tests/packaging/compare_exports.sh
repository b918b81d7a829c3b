#!/bin/sh
# compare_exports.sh NM LIBRARY LIST: fails, with the difference, unless LIBRARY exports exactly the
# names in LIST. To accept a change: compare_exports.sh NM LIBRARY LIST --update
set -eu
nm=$1 library=$2 list=$3

exported() {
  "$nm" --dynamic --defined-only --extern-only --demangle --format=posix "$library" |
    sed -E 's/ [A-Zuvw]( [0-9a-f]+)* *$//' | LC_ALL=C sort -u
}

if [ "${4:-}" = --update ]; then
  exported > "$list"
  exit 0
fi
exported | diff -u "$list" - || {
  echo "The names that $library exports are not those of $list." >&2
  exit 1
}
