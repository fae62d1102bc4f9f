#!/bin/sh
# Out of descriptors, memory or threads: builds the Linux programs in build/linux and prints
# the figures of docs/reliability.md ("Exhaustion"). Needs root: it runs in a network
# namespace of its own (port 51470 stays free for anyone else), sets limits with prlimit and
# makes cgroup v1 groups under /sys/fs/cgroup/memory and /sys/fs/cgroup/pids. Takes about a
# minute. An argument names another server program to measure (an older build, say); the
# server's environment is this script's, so KVTNETD_BODY_MEMORY=2G shows what happens in the
# 1 GiB group when the budget does not hold the bodies back.
set -eu
root=$(cd "$(dirname "$0")/.." && pwd)
build="$root/build/linux"

if [ -z "${KVT_EXHAUSTION_INSIDE:-}" ]; then
  [ -f "$build/CMakeCache.txt" ] || cmake --preset linux -S "$root" >/dev/null
  cmake --build "$build" --target kvt_exhaustion -j2 >/dev/null
  export KVT_EXHAUSTION_INSIDE=1
  exec unshare -n sh -c 'ip link set lo up && exec "$0" "$@"' "$0" "$@"
fi
echo "on $(nproc) × $(sed -n 's/^model name[^:]*: //p' /proc/cpuinfo | head -1), $(free -g | awk '/^Mem:/{print $2}') GiB, $(uname -r), $(date -u '+%Y-%m-%d %H:%M UTC')"
echo
"$build/bench/kvt_exhaustion" "$@"
