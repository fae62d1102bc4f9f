#!/usr/bin/env bash
# The source lines that a fuzz corpus reaches (llvm-cov), per file: kvt_fuzz_serve's over the
# server's code (src/commands, src/print, src/files, src/server), kvt_fuzz_client's over the
# client library (src/client). Builds the fuzz-coverage preset first.
#   scripts/fuzz-coverage.sh SERVE_CORPUS [CLIENT_CORPUS]
# A line list of what is not reached: build/fuzz-coverage/report/TARGET.txt.
set -euo pipefail
cd "$(dirname "$0")/.."
cmake --preset fuzz-coverage >/dev/null && cmake --build --preset fuzz-coverage >/dev/null
out=build/fuzz-coverage/report
rm -rf "$out" && mkdir -p "$out"
report() {  # target corpus folders...
  local target=$1 corpus=$2 binary=build/fuzz-coverage/tests/fuzz/kvt_fuzz_$1
  shift 2
  LLVM_PROFILE_FILE="$out/$target.profraw" "$binary" -runs=0 "$corpus" >/dev/null 2>&1
  llvm-profdata-14 merge -sparse "$out/$target.profraw" -o "$out/$target.profdata"
  echo "kvt_fuzz_$target, corpus $corpus ($(ls "$corpus" | wc -l) inputs):"
  llvm-cov-14 report "$binary" -instr-profile="$out/$target.profdata" "$@" |
    sed "s|$PWD/||"
  llvm-cov-14 show "$binary" -instr-profile="$out/$target.profdata" -show-line-counts \
    -format=text "$@" >"$out/$target.txt"
}
report serve "$1" src/commands src/print src/files src/server
if [[ $# -gt 1 ]]; then report client "$2" src/client; fi
