#!/bin/sh
# Runs a command in a network namespace of its own, with only the loopback interface, and
# with the range of outgoing ports moved below the ports the tests listen on (KVTnetd 51470,
# the benchmark's 51471, kvtweb 51480): the many connections a test run opens and leaves
# in TIME_WAIT can then never hold one of those ports, and no other test run or service of
# the machine can either. Needs root (CI runs as root) or unprivileged user namespaces;
# without either the command runs as it is, with a warning.
#   scripts/isolated.sh ctest --preset linux
if unshare -n true 2>/dev/null; then
  exec unshare -n sh -c '
    ip link set lo up &&
    sysctl -qw net.ipv4.ip_local_port_range="20000 45000" &&
    sysctl -qw net.ipv4.ip_local_reserved_ports=51470-51499 &&
    exec "$@"' sh "$@"
fi
echo "isolated.sh: no network namespace of its own (not root?): tests share the machine's ports" >&2
exec "$@"
