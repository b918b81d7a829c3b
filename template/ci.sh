#!/usr/bin/env bash
# Configures, builds and tests from nothing, on Debian 12. The packages of tarv are taken from the
# folder packages/, unless they are installed.
set -euo pipefail
cd "$(dirname "$(readlink -f "$0")")"

if ! dpkg-query -W tarv-dev tarv-host > /dev/null 2>&1; then
  apt-get update
  apt-get install -y --no-install-recommends g++ cmake libgmock-dev make ./packages/tarv*.deb
fi
cmake -S . -B build/ci
cmake --build build/ci
ctest --test-dir build/ci --output-on-failure --no-tests=error
