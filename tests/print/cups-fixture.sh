#!/bin/sh
# A private CUPS scheduler for the tests: its own server root, spool and log folders and a
# Unix-domain socket in DIR, no TCP port, two raw queues that print to /dev/null.
#   cups-fixture.sh up DIR     start it (the tests reach it with CUPS_SERVER=DIR/cups.sock)
#   cups-fixture.sh down DIR   stop it and remove DIR
# With KVT_CUPS_STOCK=1 it keeps Debian's stock policy and system group (root lpadmin)
# instead of the open policy: the package test proves the service's lpadmin membership.
# Without cupsd the scheduler is not started and `up` still succeeds, leaving the reason in
# DIR/unavailable: the tests that need the scheduler then skip, saying why.
set -u
action=$1 dir=$2
socket="$dir/cups.sock"
export CUPS_SERVER="$socket" LC_ALL=C

stop() {
  [ -f "$dir/cupsd.pid" ] || return 0
  pid=$(cat "$dir/cupsd.pid")
  rm -f "$dir/cupsd.pid"
  kill "$pid" 2>/dev/null || return 0
  i=0
  while kill -0 "$pid" 2>/dev/null && [ $i -lt 100 ]; do sleep 0.1; i=$((i + 1)); done
  kill -9 "$pid" 2>/dev/null
  return 0
}

case "$action" in
down)
  stop
  rm -rf "$dir"
  exit 0 ;;
up) ;;
*) echo "usage: $0 up|down DIR" >&2; exit 2 ;;
esac

stop  # a scheduler left over from an interrupted run
rm -rf "$dir"
cupsd=$(command -v cupsd || echo /usr/sbin/cupsd)
mkdir -p "$dir/spool/tmp" "$dir/cache" "$dir/state" "$dir/log" "$dir/ppd"
if [ ! -x "$cupsd" ] || ! command -v lpadmin >/dev/null || ! command -v lp >/dev/null; then
  echo "cupsd, lpadmin or lp is not installed (packages cups, cups-client, cups-bsd)" |
    tee "$dir/unavailable"
  exit 0
fi
chmod 755 "$dir"

cat > "$dir/cups-files.conf" <<CONF
ServerRoot $dir
RequestRoot $dir/spool
TempDir $dir/spool/tmp
CacheDir $dir/cache
StateDir $dir/state
ServerBin /usr/lib/cups
DataDir /usr/share/cups
DocumentRoot /usr/share/cups/doc-root
ErrorLog $dir/log/error_log
AccessLog $dir/log/access_log
PageLog $dir/log/page_log
FileDevice Yes
SystemGroup root${KVT_CUPS_STOCK:+ lpadmin}
CONF

# Every request goes to the access log (one line each): the benchmark counts a listing's.
cat > "$dir/cupsd.conf" <<CONF
Listen $socket
LogLevel warn
AccessLogLevel all
Browsing No
WebInterface No
CONF
if [ -n "${KVT_CUPS_STOCK:-}" ]; then
  { echo "DefaultPolicy default"
    # Without "AuthType Default" root adds the queues by its peer credentials: the local
    # certificate lpadmin would use lies in the system scheduler's folder, not in DIR.
    sed -n '/^<Policy default>/,/^<\/Policy>/{/AuthType Default/d;p}' /usr/share/cups/cupsd.conf.default
  } >> "$dir/cupsd.conf"
else
  cat >> "$dir/cupsd.conf" <<CONF
DefaultPolicy open
<Policy open>
  JobPrivateAccess default
  JobPrivateValues default
  SubscriptionPrivateAccess default
  SubscriptionPrivateValues default
  <Limit All>
    Order deny,allow
  </Limit>
</Policy>
CONF
fi

# Fully detached: a scheduler that kept the test runner's output pipe would hang it.
setsid "$cupsd" -f -c "$dir/cupsd.conf" -s "$dir/cups-files.conf" </dev/null >"$dir/log/cupsd.out" 2>&1 &
echo $! > "$dir/cupsd.pid"

i=0
until lpstat -r 2>/dev/null | grep -q "is running"; do
  i=$((i + 1))
  if [ $i -gt 100 ] || ! kill -0 "$(cat "$dir/cupsd.pid")" 2>/dev/null; then
    echo "the private scheduler did not start:"
    cat "$dir/log/cupsd.out" "$dir/log/error_log" 2>/dev/null
    stop
    exit 1
  fi
  sleep 0.1
done
for queue in KvtProofA KvtProofB; do
  lpadmin -p "$queue" -E -v file:///dev/null || { stop; exit 1; }
done
lpstat -v
