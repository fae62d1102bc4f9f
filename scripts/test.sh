#!/usr/bin/env bash
# Builds both programs and runs every test: the Windows build's tests under Wine, then the
# Linux tests, whose wire tests run against kvtnetd and against kvtnetd.exe under Wine, and
# whose web tests drive kvtweb's page in headless Chromium.
#   scripts/test.sh             everything
#   scripts/test.sh --sanitize  the Linux tests built with AddressSanitizer and UBSan
#   scripts/test.sh --tsan      the Linux tests built with ThreadSanitizer
#   scripts/test.sh --fuzz      the fuzz target (clang): its seeds and regressions replayed,
#                               then fuzzed for KVT_FUZZ_SECONDS (60); any finding fails
set -euo pipefail
cd "$(dirname "$0")/.."

run() { cmake --preset "$1" >/dev/null && cmake --build --preset "$1" && ctest --preset "$1"; }

if [[ "${1:-}" == --sanitize ]]; then
  scripts/install-deps.sh
  run linux-asan
  exit
fi
if [[ "${1:-}" == --tsan ]]; then
  scripts/install-deps.sh
  run linux-tsan
  exit
fi
if [[ "${1:-}" == --fuzz ]]; then
  scripts/install-deps.sh fuzz
  run fuzz
  # A fresh corpus from the seeds each time; findings land in build/fuzz/run/findings.
  out=build/fuzz/run
  rm -rf "$out" && mkdir -p "$out/corpus" "$out/findings"
  cp build/fuzz/tests/fuzz/seeds/* "$out/corpus/"
  if ! build/fuzz/tests/fuzz/kvt_fuzz_serve "$out/corpus" -max_total_time="${KVT_FUZZ_SECONDS:-60}" \
      -malloc_limit_mb=1100 -rss_limit_mb=2048 -timeout=20 -artifact_prefix="$out/findings/" \
      -print_final_stats=1 >"$out/log" 2>&1; then
    tail -n 60 "$out/log"
    echo "fuzzing found a fault: the input is in $out/findings" >&2
    exit 1
  fi
  grep -E "^#[0-9]+[[:space:]]+DONE|^stat::" "$out/log"
  exit
fi
# web: the browser that kvtweb's tests (web.browser, web.requests) drive.
scripts/install-deps.sh windows web
run windows
run linux
