#!/bin/sh
# compare.sh README LANGUAGE PROGRAM...: fails, with the difference, unless the README's code blocks of
# LANGUAGE are the PROGRAMs.
set -eu
readme=$1 language=$2
shift 2
sed -n "/^\`\`\`$language\$/,/^\`\`\`\$/p" "$readme" | grep -v '^```' > "shown.$language"
cat "$@" | diff -u - shown.$language
