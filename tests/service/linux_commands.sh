#!/bin/sh
# The Linux program has no service control manager: each service command fails at its
# first step with ERROR_CALL_NOT_IMPLEMENTED (120), prints that step's message and exits 120.
#   linux_commands.sh KVTNETD WORKDIR
set -u
exe=$1 work=$2
mkdir -p "$work"
failures=0
# check ARGUMENT MESSAGE: MESSAGE is a printf format.
check() {
  "$exe" "$1" </dev/null >"$work/out" 2>&1
  code=$?
  printf "$2" >"$work/expected"
  if [ "$code" != 120 ] || ! cmp -s "$work/out" "$work/expected"; then
    echo "FAILED: kvtnetd $1 exited $code and printed: $(cat "$work/out")"
    failures=$((failures + 1))
  fi
}
check -c 'Cannot open Control Manager Database on local machine (120)'
check -k 'Cannot open Control Manager Database on local machine (120)'
check -d 'Cannot open Control Manager Database on local machine (120)'
check -s 'KVTnetd: StartServiceCtrlDispatcher error (120)\n'
[ "$failures" = 0 ] && echo "4 service commands checked"
exit "$failures"
