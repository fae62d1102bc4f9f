#!/bin/sh
# The Wine prefix of a test run.
#   wine-prefix.sh up PREFIX    makes the prefix once, then starts a persistent wineserver
#   wine-prefix.sh down PREFIX  stops that server and every Wine process in the prefix
# Whatever Wine starts in the background must not hold CTest's output pipe (CTest would wait
# for it to close), so every Wine command here has its output sent elsewhere.
set -u
action=${1:?up or down}
WINEPREFIX=${2:?prefix folder}
WINEDEBUG=-all
export WINEPREFIX WINEDEBUG

case $action in
up)
  if [ ! -f "$WINEPREFIX/system.reg" ]; then
    log=$WINEPREFIX.log
    mkdir -p "$(dirname "$WINEPREFIX")"
    # No menu entries in the user's desktop, no Mono or Gecko installer prompts.
    if ! WINEDLLOVERRIDES="winemenubuilder.exe=d;mscoree,mshtml=" \
        timeout 300 wineboot -i </dev/null >"$log" 2>&1; then
      echo "wineboot -i failed for $WINEPREFIX:"
      cat "$log"
      exit 1
    fi
  fi
  # wineboot's own server is not persistent, and a second server cannot start while it
  # runs: let it finish first.
  timeout 30 wineserver -w </dev/null >/dev/null 2>&1
  if ! wineserver -p </dev/null >/dev/null 2>&1; then
    # A server is still running (a program left in the prefix): the tests work with it,
    # only slower if it is not persistent.
    echo "note: a wineserver was already running for $WINEPREFIX"
  fi
  # Starts the prefix's services now, detached, rather than inside the first test.
  timeout 120 wine cmd /c exit </dev/null >/dev/null 2>&1
  exit 0
  ;;
down)
  [ -d "$WINEPREFIX" ] && wineserver -k </dev/null >/dev/null 2>&1
  exit 0
  ;;
*)
  echo "usage: $0 up|down PREFIX" >&2
  exit 2
  ;;
esac
