#!/bin/sh
# compare_returns.sh CHECK SAMPLE: fails unless CHECK names exactly the lines of SAMPLE that end in
# "fault".
set -eu
"$1" "$2" > found && { echo "it took the sample for clean" >&2; exit 1; }
sed -nE 's/^[^:]*:([0-9]+): error.*/\1/p' found > found.lines
grep -n '// fault$' "$2" | cut -d: -f1 | diff -u - found.lines
