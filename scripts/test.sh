#!/usr/bin/env bash
# Builds both programs and runs every test: the Windows build's tests under Wine, then the
# Linux tests, whose wire tests run against kvtnetd and against kvtnetd.exe under Wine.
#   scripts/test.sh             everything
#   scripts/test.sh --sanitize  the Linux tests built with AddressSanitizer and UBSan
set -euo pipefail
cd "$(dirname "$0")/.."

run() { cmake --preset "$1" >/dev/null && cmake --build --preset "$1" && ctest --preset "$1"; }

if [[ "${1:-}" == --sanitize ]]; then
  scripts/install-deps.sh
  run linux-asan
  exit
fi
scripts/install-deps.sh windows
run windows
run linux
