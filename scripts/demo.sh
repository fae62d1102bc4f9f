#!/usr/bin/env bash
# Builds the Linux server and runs it in debug mode on a demo data folder in build/demo:
# the spool and gamut folders, and a pointer file naming the print program's folder.
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/install-deps.sh
cmake --preset linux >/dev/null
cmake --build --preset linux --target kvtnetd kvtctl

demo=$PWD/build/demo
mkdir -p "$demo/ProgramData/Corvina/spool" "$demo/ProgramData/Corvina/gamut" \
         "$demo/ProgramData/Velmora" "$demo/Corvina"
printf '%s\n' "$demo/Corvina" > "$demo/ProgramData/Velmora/Corvina"

cat <<TXT
KVTnetd demo: data folder $demo/ProgramData, log files in $demo.
Talk to it from another terminal:   build/linux/kvtctl ping
Stop it with Ctrl-C.
TXT
cd "$demo"
ProgramData="$demo/ProgramData" exec ../linux/kvtnetd -debug
