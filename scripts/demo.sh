#!/usr/bin/env bash
# Builds the Linux server and runs it in debug mode on a demo data folder in build/demo:
# the spool and gamut folders, and a pointer file naming the print program's folder. kvtweb
# runs beside it (where it is built), showing the server on http://127.0.0.1:51480/.
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/install-deps.sh
cmake --preset linux >/dev/null
cmake --build --preset linux --target kvtnetd kvtctl
cmake --build --preset linux --target kvtweb 2>/dev/null || true  # where its libraries are

demo=$PWD/build/demo
mkdir -p "$demo/ProgramData/Corvina/spool" "$demo/ProgramData/Corvina/gamut" \
         "$demo/ProgramData/Velmora" "$demo/Corvina"
printf '%s\n' "$demo/Corvina" > "$demo/ProgramData/Velmora/Corvina"

# Something to look at: a stored printer list, two configurations of the gamut folder "Demo"
# (one with a gamut file, one with an ICC profile), and a waiting spool file whose 1,248-byte
# header names its document, printer, machine and user.
data=$demo/ProgramData/Corvina
printf 'PDemo printer\nProof printer\n' > "$data/PrinterList"
mkdir -p "$data/gamut/Demo"
printf 'glossy settings' > "$data/gamut/Demo/Glossy.cfg"
head -c 20000 /dev/urandom > "$data/gamut/Demo/Glossy.gamut"
printf 'matte settings' > "$data/gamut/Demo/Matte.cfg"
head -c 3000 /dev/urandom > "$data/gamut/Demo/Matte.icc"
spool=$data/spool/178000000000001.spl
head -c 5000 /dev/zero > "$spool"
put() { printf '%s' "$2" | dd of="$spool" bs=1 seek="$1" conv=notrunc status=none; }
put 1 $'\x0f'; put 2 "poster.pdf"; put 82 "waiting"; put 162 "Demo printer"
put 922 "178000000000001"; put 958 "ws12"; put 1022 "demo"

web=""
if [[ -x build/linux/kvtweb ]]; then
  build/linux/kvtweb --server 127.0.0.1:51470 >"$demo/kvtweb.log" 2>&1 &
  web=$!
  trap 'kill $web 2>/dev/null' EXIT
fi

cat <<TXT
KVTnetd demo: data folder $demo/ProgramData, log files in $demo.
${web:+The status page: http://127.0.0.1:51480/ (metrics: http://127.0.0.1:51480/metrics).}
Talk to it from another terminal, for instance:
  build/linux/kvtctl ping
  build/linux/kvtctl jobs
  build/linux/kvtctl configs Demo
  build/linux/kvtctl gamut Demo Glossy -o /tmp/Glossy.gamut
  build/linux/kvtctl printer-list
Stop it with Ctrl-C.
TXT
cd "$demo"
# Not exec: the trap ends kvtweb when the server stops.
ProgramData="$demo/ProgramData" ../linux/kvtnetd -debug
