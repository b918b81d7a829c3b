#!/usr/bin/env bash
# compare.sh LIBRARY BASELINES [--update]: fails, naming what broke, unless LIBRARY, which must have
# full debugging information, keeps what the baseline of its processor promises; with --update makes
# that baseline. Additions are no break.
set -euo pipefail
library=$1 baselines=$2
root=$(dirname "$(readlink -f "$0")")/../..
processor=$(readelf -h "$library" | sed -n 's/ *Machine: *//p')
case $processor in
  *X86-64*) baseline=$baselines/libtarv-x86_64.abi ;;
  AArch64) baseline=$baselines/libtarv-aarch64.abi ;;
  *) echo "compare.sh: no baseline is kept for the processor '$processor'" >&2; exit 1 ;;
esac

headers=()
for folder in include quarn cw vorpc vorpc_qt wrapper embedder; do
  [ "$folder" = include ] || folder=$folder/include
  headers+=(--headers-dir "$root/$folder")
done

# Only what the public headers show: the types behind them may change.
describe() {
  abidw "${headers[@]}" --drop-private-types --exported-interfaces-only --no-show-locs --no-corpus-path \
    --no-comp-dir-path "$library"
}

if [ "${3:-}" = --update ]; then
  describe > "$baseline"
  echo "compare.sh: $baseline is of this library now" >&2
  exit 0
fi
new=$(mktemp)
trap 'rm -f "$new"' EXIT
describe > "$new"
# Additions do not count; every other difference that is not harmless does.
status=0
abidiff --no-added-syms --no-show-locs --suppressions "$root/tests/abi/suppressions.ini" "$baseline" "$new" || status=$?
if ((status != 0)); then
  echo "compare.sh: programs that were built with the library of $baseline break with this one. When that is" >&2
  echo "meant: ./dev abi --update, and a line under Unreleased" >&2
  exit 1
fi
