#!/usr/bin/env bash
# What ctest.sh makes of tests that pass, that fail once, and that always fail.
set -euo pipefail

run=$1
folder=$(mktemp -d)
trap 'rm -rf "$folder"' EXIT

# tests NAME=COMMAND...: a build folder with these tests.
tests() {
  rm -rf "${folder:?}"/*
  local test
  for test in "$@"; do
    printf 'add_test([=[%s]=] "bash" "-c" [=[%s]=])\n' "${test%%=*}" "${test#*=}"
  done > "$folder/CTestTestfile.cmake"
}

# expect STATUS TEXT: what the run ends with, and what it says; "" is no word of a second run.
expect() {
  local status=0
  "$run" "$folder" > "$folder/output" 2>&1 || status=$?
  if [ "$status" -ne "$1" ] || { [ -z "$2" ] && grep -qE '^(Once more|UNSTEADY)' "$folder/output"; } ||
    ! grep -qF -- "$2" "$folder/output"; then
    cat "$folder/output"
    echo "wanted status $1 and '$2', got status $status"
    exit 1
  fi
}

once='[ -f '$folder'/seen ] || { echo first words; touch '$folder'/seen; exit 1; }'

tests One.Passes=true Two.Passes=true
expect 0 ''

tests One.Passes=true Two.FailsOnce="$once"
expect 0 'UNSTEADY, failed beside the others and passed alone: Two.FailsOnce'
grep -q '^first words' "$folder/output"

tests One.FailsOnce="$once" Two.Fails='echo always; false'
expect 8 'Once more, alone: One.FailsOnce Two.Fails'

tests A="$once" B=false C=false D=false
expect 8 ''

tests
expect 8 ''
