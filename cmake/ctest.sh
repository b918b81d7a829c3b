#!/usr/bin/env bash
# ctest.sh BUILD [ARGUMENT...]: runs the tests of a build folder.
#
# A machine that others use, too, can hold up a process for longer than any test allows for. So up to three
# tests that fail beside the others run once more, alone; what fails there fails the run. What passes there
# is named at the end: it is a defect of the test or of what it tests, and both outputs are to be read.
set -euo pipefail

build=$1
shift
again_at_most=3

failures=$build/Testing/Temporary/LastTestsFailed.log
rm -f "$failures"
status=0
# Many tests wait for a process more than they work.
ctest --test-dir "$build" --output-on-failure --no-tests=error -j "$((2 * $(nproc)))" "$@" || status=$?
[ "$status" -ne 0 ] || exit 0
[ -s "$failures" ] || exit "$status" # no test failed: something else is wrong

mapfile -t failed < <(sed 's/^[0-9]*://' "$failures")
[ "${#failed[@]}" -le "$again_at_most" ] || exit "$status"
echo "Once more, alone: ${failed[*]}" >&2
ctest --test-dir "$build" --output-on-failure --rerun-failed || exit $?
echo "UNSTEADY, failed beside the others and passed alone: ${failed[*]}" >&2
