#!/bin/sh
# The service commands of kvtnetd.exe against Wine's service control manager, one group of
# cases per fresh Wine prefix:
#   wine_service.sh lifecycle|path KVTNETD_EXE PROBE_EXE WORKDIR
# lifecycle: install and start, the service's controls, stop, remove, and their failures.
# path:      the 252-character bound of the program's path, an unquoted path with blanks,
#            and removal of a running service.
# Exits 77 (skipped) when the Windows program, the probe or wine is missing.
set -u
group=$1 exe=$2 probe=$3 work=$4

skip() {
  echo "skipped: $1"
  exit 77
}
[ -n "$exe" ] && [ -f "$exe" ] || skip "no Windows program (KVT_WINDOWS_SERVER='$exe')"
[ -f "$probe" ] || skip "no $probe (built by the Windows build)"
for tool in wine wineserver wineboot; do
  command -v $tool >/dev/null 2>&1 || skip "$tool is not installed"
done

WINEPREFIX=$work/prefix
WINEDEBUG=-all
export WINEPREFIX WINEDEBUG
rm -rf "$work" && mkdir -p "$work" || exit 1
prefix_script=$(dirname "$0")/../../cmake/wine-prefix.sh
trap 'sh "$prefix_script" down "$WINEPREFIX"' EXIT

# Every Wine command runs with its output in files: the services and the device manager that
# Wine starts in the background inherit it, and would hold CTest's pipe open.
w() { timeout 60 wine "$@" </dev/null >"$work/out" 2>"$work/err"; }

# A fresh prefix with a persistent server and Wine's services started, as for the other
# Wine tests.
sh "$prefix_script" up "$WINEPREFIX" || exit 1

failures=0
fail() {
  echo "FAILED: $*"
  failures=$((failures + 1))
}

windows_path() {
  w winepath -w "$1" && tr -d '\r\n' <"$work/out"
}

# expect PROGRAM CODE MESSAGE ARGUMENTS...: the program, run with its standard output in a
# file, prints MESSAGE (a printf format) there and exits with CODE (of which a Unix parent
# sees the low 8 bits; the message carries the whole code).
expect() {
  program=$1 code=$2 message=$3
  shift 3
  w "$program" "$@"
  got=$?
  printf "$message" >"$work/expected"
  [ "$got" = $((code % 256)) ] && cmp -s "$work/out" "$work/expected" ||
    fail "kvtnetd.exe $*: expected \"$message\" and exit $code, got exit $got: $(cat "$work/out")"
}

# state: the probe's answer on KVTnetd ("type=0x10 state=4 controls=1 exit=0", or
# "open error=1060" when there is no such service).
state() {
  w "$probe" query KVTnetd
  tr -d '\r\n' <"$work/out"
}

# eventually COMMAND...: Wine's service manager works in the background; wait up to 20 s.
eventually() {
  for _ in $(seq 40); do
    "$@" && return 0
    sleep 0.5
  done
  return 1
}
in_state() { case $(state) in $1) return 0 ;; esac; return 1; }
wait_state() { eventually in_state "$1" || fail "service state: expected $1, got $(state)"; }

# no_service_process: this prefix runs no "kvtnetd.exe -s".
no_service_process() {
  for pid in $(pgrep -f 'kvtnetd\.exe -s'); do
    tr '\0' '\n' <"/proc/$pid/environ" 2>/dev/null | grep -qxF "WINEPREFIX=$WINEPREFIX" && return 1
  done
  return 0
}

running='type=0x10 state=4 controls=1 exit=0'
absent='open error=1060'
cannot_open='Cannot open the Control Manager Database to delete the service KVTnetd (error 1060)'

lifecycle() {
  winexe=$(windows_path "$exe")
  expect "$exe" 0 '' -c
  wait_state "$running"
  w "$probe" config KVTnetd
  [ "$(tr -d '\r\n' <"$work/out")" = "type=0x10 start=2 error=1 account=LocalSystem path=$winexe -s" ] ||
    fail "registration: $(cat "$work/out")"
  expect "$exe" 1056 'Cannot START the service KVTnetd (error 1056)' -c

  # A user control code is answered and changes nothing; so is an interrogation.
  w "$probe" control KVTnetd 200 || fail "control 200: $(cat "$work/out")"
  w "$probe" control KVTnetd 4 || fail "interrogate: $(cat "$work/out")"
  [ "$(state)" = "$running" ] || fail "after controls 200 and 4: $(state)"

  expect "$exe" 1063 'KVTnetd: StartServiceCtrlDispatcher error (1063)\n' -s

  expect "$exe" 0 '' -k
  wait_state '*state=1 *exit=0'
  # The dispatcher returns once the service has stopped: its process ends.
  eventually no_service_process || fail "the stopped service's process is still running"
  expect "$exe" 1062 'Cannot STOP the service KVTnetd (error 1062)' -k

  expect "$exe" 0 '' -d
  wait_state "$absent"
  expect "$exe" 1060 "$cannot_open" -k
  expect "$exe" 1060 "$cannot_open" -d
}

# copy_at LENGTH: a copy of the program whose Windows path has LENGTH characters, in
# folders with blanks in their names. Prints the copy's Unix path.
copy_at() {
  folder="$work/program $1/with blanks"
  mkdir -p "$folder" || return 1
  base=$(windows_path "$folder/kvtnetd.exe")
  pad=$(($1 - ${#base}))
  [ "$pad" -ge 2 ] || return 1
  # Folder names of at most 100 characters; each costs its length and a separator.
  while [ "$pad" -gt 0 ]; do
    n=$((pad > 101 ? 100 : pad - 1))
    [ "$n" -ge 1 ] || n=1
    folder=$folder/$(printf "%${n}s" | tr ' ' x)
    pad=$((pad - n - 1))
  done
  mkdir -p "$folder" && cp "$exe" "$folder/" && echo "$folder/kvtnetd.exe"
}

path() {
  too_long=$(copy_at 253) && longest=$(copy_at 252) || {
    fail "the build folder's path is too long for these cases"
    return
  }
  winpath=$(windows_path "$longest")
  [ ${#winpath} = 252 ] || fail "copy of the program at ${#winpath} characters, not 252"

  expect "$too_long" 206 'Cannot create the service KVTnetd (error 206)' -c
  [ "$(state)" = "$absent" ] || fail "a service was registered from a path too long: $(state)"

  expect "$longest" 0 '' -c
  wait_state "$running"
  w "$probe" config KVTnetd
  case $(tr -d '\r\n' <"$work/out") in
    *" path=$winpath -s") ;;
    *) fail "registered path: $(cat "$work/out")" ;;
  esac

  # Removal of a running service only marks it; it goes when it stops.
  expect "$longest" 0 '' -d
  [ "$(state)" = "$running" ] || fail "the marked service stopped or went: $(state)"
  expect "$longest" 0 '' -k
  wait_state "$absent"
}

case $group in
  lifecycle) lifecycle ;;
  path) path ;;
  *) fail "unknown group $group" ;;
esac
[ "$failures" = 0 ] && echo "service $group: passed"
exit "$failures"
