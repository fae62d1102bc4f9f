#!/bin/sh
# systemd-analyze verify on the shipped unit, with ExecStart pointed at the built program:
# verify refuses a unit whose program does not exist.
#   verify_unit.sh UNIT KVTNETD WORKDIR
set -u
unit=$1 exe=$2 work=$3
if ! grep -qx "ExecStart=/usr/sbin/kvtnetd" "$unit"; then
  echo "FAILED: $unit has no line ExecStart=/usr/sbin/kvtnetd"
  exit 1
fi
if ! command -v systemd-analyze >/dev/null 2>&1; then
  # Syntax only: sections of a service unit, and keys with values.
  bad=$(grep -vE '^(#.*|\[(Unit|Service|Install)\]|[A-Za-z]+=.+|)$' "$unit")
  [ -z "$bad" ] || { echo "FAILED: not unit syntax: $bad"; exit 1; }
  echo "skipped: systemd-analyze is not installed; syntax checked only"
  exit 77
fi
rm -rf "$work" && mkdir -p "$work"
copy=$work/kvtnetd.service
sed "s|^ExecStart=/usr/sbin/kvtnetd\$|ExecStart=$exe|" "$unit" >"$copy"
# Warnings (an unknown key, a bad value) leave the exit code 0: any word about the unit fails.
# --man=no: the man page its Documentation= names comes with the package, not installed here.
systemd-analyze verify --man=no "$copy" >"$work/verify.log" 2>&1
code=$?
cat "$work/verify.log"
if [ "$code" != 0 ] || grep -q "kvtnetd.service" "$work/verify.log"; then
  echo "FAILED: systemd-analyze verify"
  exit 1
fi
echo "unit verified"
