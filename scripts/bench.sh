#!/bin/sh
# The benchmark: builds the Linux programs in build/bench (RelWithDebInfo) and prints one
# table of KVTnetd against its baselines. Arguments pick figures (1 to 7; default all).
# As root it runs in a network namespace of its own (port 51470 stays free for anyone else),
# with a private CUPS scheduler for the CUPS baselines.
set -eu
root=$(cd "$(dirname "$0")/.." && pwd)
build="$root/build/bench"

if [ -z "${KVT_BENCH_INSIDE:-}" ]; then
  cmake -S "$root" -B "$build" -DCMAKE_BUILD_TYPE=RelWithDebInfo -DKVT_WINDOWS_SERVER= >/dev/null
  cmake --build "$build" --target kvt_bench -j2 >/dev/null
  if [ "$(id -u)" = 0 ] && unshare -n true 2>/dev/null; then
    export KVT_BENCH_INSIDE=1
    exec unshare -n sh -c 'ip link set lo up && exec "$0" "$@"' "$0" "$@"
  fi
  echo "bench.sh: not root or no unshare: running in this network namespace" >&2
fi

# Room for the connection figure's ephemeral ports (private to the namespace when isolated).
[ -n "${KVT_BENCH_INSIDE:-}" ] && sysctl -qw net.ipv4.ip_local_port_range="10000 60999" || true

cups=/tmp/kvt-bench-cups
sh "$root/tests/print/cups-fixture.sh" up "$cups" >/dev/null 2>&1 || true
trap 'sh "$root/tests/print/cups-fixture.sh" down "$cups" >/dev/null 2>&1' EXIT
trap 'exit 130' INT TERM
[ -S "$cups/cups.sock" ] && export CUPS_SERVER="$cups/cups.sock"

echo "KVTnetd benchmark, $(date -u '+%Y-%m-%d %H:%M UTC') on $(nproc) × $(sed -n 's/^model name[^:]*: //p' /proc/cpuinfo | head -1), $(free -g | awk '/^Mem:/{print $2}') GiB"
echo
"$build/bench/kvt_bench" "$@"
