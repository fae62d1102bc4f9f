#!/usr/bin/env bash
# Builds both programs and runs every test: the Windows build's tests under Wine, then the
# Linux tests, whose wire tests run against kvtnetd and against kvtnetd.exe under Wine, and
# whose web tests drive kvtweb's page in headless Chromium.
#   scripts/test.sh             everything
#   scripts/test.sh --sanitize  the Linux tests built with AddressSanitizer and UBSan
#   scripts/test.sh --tsan      the Linux tests built with ThreadSanitizer
#   scripts/test.sh --fuzz      every target built with clang; the fuzz targets' seeds and
#                               regressions replayed, then each fuzzed for KVT_FUZZ_SECONDS
#                               (60); any finding fails
# The tests run in a network namespace of their own (scripts/isolated.sh): the fixed ports
# they listen on are theirs alone.
set -euo pipefail
cd "$(dirname "$0")/.."

run() {
  cmake --preset "$1" >/dev/null && cmake --build --preset "$1" && scripts/isolated.sh ctest --preset "$1"
}

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
  # A fresh corpus from the seeds each time; findings land in build/fuzz/run/TARGET/findings.
  for target in serve client; do
    out=build/fuzz/run/$target
    rm -rf "$out" && mkdir -p "$out/corpus" "$out/findings"
    cp build/fuzz/tests/fuzz/seeds/$target/* "$out/corpus/"
    if ! build/fuzz/tests/fuzz/kvt_fuzz_$target "$out/corpus" -dict=tests/fuzz/$target.dict \
        -max_total_time="${KVT_FUZZ_SECONDS:-60}" -malloc_limit_mb=1100 -rss_limit_mb=2048 \
        -timeout=20 -artifact_prefix="$out/findings/" -print_final_stats=1 >"$out/log" 2>&1; then
      tail -n 60 "$out/log"
      echo "fuzzing kvt_fuzz_$target found a fault: the input is in $out/findings" >&2
      exit 1
    fi
    echo "kvt_fuzz_$target:"
    grep -E "^#[0-9]+[[:space:]]+DONE|^stat::" "$out/log"
  done
  exit
fi
# web: the browser that kvtweb's tests (web.browser, web.requests) drive.
scripts/install-deps.sh windows web
run windows
run linux
