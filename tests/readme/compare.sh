#!/bin/sh
# compare.sh README PROGRAM: fails, with the difference, unless the README shows PROGRAM as its C code.
set -eu
sed -n '/^```c$/,/^```$/p' "$1" | sed '1d;$d' | diff -u "$2" -
