#!/bin/sh
# The containment checks, run as root inside the throw-away system that containment.sh
# makes: "nspawn" (systemd is process 1; the packaged unit runs the server) or "chroot"
# (no systemd; the server runs with the unit's user, groups and environment via setpriv).
# A private scheduler with Debian's stock policy stands in for the system's CUPS; two other
# users hold jobs there. Results go to /kvt-results/log and /kvt-results/status.
set -u
mode=$1
pkg=/root/kvt-package
out=/kvt-results
exec >"$out/log" 2>&1
export DEBIAN_FRONTEND=noninteractive LC_ALL=C PATH=/usr/sbin:/usr/bin:/sbin:/bin
failures=0
ok() { echo "ok - $*"; }
bad() { echo "NOT OK - $*"; failures=$((failures + 1)); }
# check TEXT COMMAND...: one check, passing when COMMAND succeeds.
check() { text=$1; shift; if "$@"; then ok "$text"; else bad "$text"; fi; }
# wait_for COMMAND...: until COMMAND succeeds; the 30 s deadline only turns a hang into a failure.
wait_for() {
  i=0
  until "$@" >/dev/null 2>&1; do
    i=$((i + 1)); [ $i -le 300 ] || return 1; sleep 0.1
  done
}
finish() {
  echo "$failures check(s) failed"
  [ $failures -eq 0 ] && echo PASS >"$out/status" || echo FAIL >"$out/status"
  exit 0
}
as() { u=$1; shift; setpriv --reuid="$u" --regid="$u" --clear-groups "$@"; }
data=/var/lib/kvtnetd
spool=$data/Corvina/spool
gamut=$data/Corvina/gamut
# kvtweb's scrape, through the packaged unit.
metrics() {
  python3 -c 'import urllib.request as u; print(u.urlopen("http://127.0.0.1:51480/metrics", timeout=10).read().decode())'
}
scraped() { metrics 2>/dev/null | grep -Fq "$1"; }
main_pid() { systemctl show -P MainPID "$1"; }

echo "# mode: $mode"
# The scheduler on the system's socket path, where libcups looks without CUPS_SERVER.
KVT_CUPS_STOCK=1 sh $pkg/cups-fixture.sh up /run/cups >/dev/null ||
  { bad "private scheduler started"; finish; }
useradd -M alice && useradd -M bob
as alice lp -d KvtProofA -H hold -t alice-payroll /etc/hostname >/dev/null
as bob lp -d KvtProofB -H hold -t bob-contract /etc/hostname >/dev/null
# The control: outside lpadmin, the scheduler hides the owner of someone else's job.
check "the scheduler hides bob's job from alice" \
  sh -c 'setpriv --reuid=alice --regid=alice --clear-groups lpstat -W not-completed -o | grep -Eq "^KvtProofB-[0-9]+ +unknown "'

# Installed with the package manager, as an operator would. This machine's tree carries a
# container's policy-rc.d that forbids starting services (the maintainer scripts obey it);
# the booted copy is a real system, so it goes there.
[ "$mode" = nspawn ] && rm -f /usr/sbin/policy-rc.d
old=$(ls "$pkg"/old/kvtnetd_*_amd64.deb 2>/dev/null)
if [ -n "$old" ]; then
  # The upgrade: the earlier version installed and running, with a spool and a gamut file.
  apt-get install -y -q "$old" >/tmp/apt-old.log 2>&1 || { cat /tmp/apt-old.log; bad "apt-get install $old"; finish; }
  ok "installed first: $(dpkg-query -W -f='${Package} ${Version}' kvtnetd)"
  install -d -o kvtnetd -g kvtnetd $gamut/Kept
  echo spool >$spool/178000000000040.spl && echo gamut >$gamut/Kept/Proof.gamut
  chown kvtnetd:kvtnetd $spool/178000000000040.spl $gamut/Kept/Proof.gamut
  if [ "$mode" = nspawn ]; then
    check "the earlier version's units run" wait_for sh -c 'systemctl is-active -q kvtnetd kvtweb'
    before="$(main_pid kvtnetd) $(main_pid kvtweb)"
  fi
fi
apt-get install -y -q "$pkg"/kvtnetd_*_amd64.deb >/tmp/apt-install.log 2>&1 ||
  { cat /tmp/apt-install.log; bad "apt-get install"; finish; }
if [ -n "$old" ]; then
  check "the upgrade kept the spool file" grep -qx spool $spool/178000000000040.spl
  check "the upgrade kept the gamut file" grep -qx gamut $gamut/Kept/Proof.gamut
fi
if [ "$mode" = nspawn ]; then
  version=$(dpkg-query -W -f='${Version}' kvtnetd)
  check "kvtweb runs version $version" wait_for scraped "kvtweb_build_info{version=\"$version\"} 1"
  check "kvtweb sees kvtnetd through the servers file" \
    wait_for scraped 'kvtnetd_up{server="127.0.0.1:51470",label="this workstation"} 1'
  if [ -n "$old" ]; then
    for unit in kvtnetd kvtweb; do
      pid=$(main_pid $unit)
      check "$unit restarted with the new program (PID $pid, was one of $before)" sh -c \
        "systemctl is-active -q $unit && ! echo ' $before ' | grep -q ' $pid ' &&
         [ \"\$(readlink /proc/$pid/exe)\" = \$(command -v $unit) ]"
    done
  fi
fi
check "installed: $(dpkg-query -W -f='${Package} ${Version}' kvtnetd)" \
  test "$(dpkg-query -W -f='${Status}' kvtnetd)" = "install ok installed"
check "kvtctl --version prints $(kvtctl --version)" sh -c 'kvtctl --version | grep -qx "kvtctl [0-9.]*"'
check "user kvtnetd is in lpadmin (groups: $(id -nG kvtnetd))" sh -c 'id -nG kvtnetd | grep -qw lpadmin'

if [ "$mode" = nspawn ]; then
  check "the package started the unit" wait_for systemctl is-active kvtnetd
  systemctl is-active -q kvtnetd || journalctl -b --no-pager -u kvtnetd | tail -n 20
  systemctl --no-pager status kvtnetd | sed -n '1,4p'
  systemd-analyze security kvtnetd 2>/dev/null | tail -n 1
  systemd-analyze security kvtweb 2>/dev/null | tail -n 1
else
  # The unit's user, groups and environment, without its sandbox.
  echo "# no systemd: the server runs through setpriv; the sandbox is NOT exercised"
  (cd $data && exec setpriv --reuid=kvtnetd --regid=kvtnetd --init-groups --no-new-privs \
     --bounding-set=-all env -i PATH=/usr/bin:/bin ProgramData=$data /usr/sbin/kvtnetd) &
  pid=$!
  check "the server answers" wait_for kvtctl ping
fi
[ "$mode" = nspawn ] && pid=$(systemctl show -P MainPID kvtnetd)
check "the server runs as kvtnetd, not root ($(ps -o user=,group= -p "$pid"))" \
  test "$(ps -o user= -p "$pid")" = kvtnetd
grep -E '^(Uid|Gid|Groups|CapEff|NoNewPrivs|Seccomp):' /proc/"$pid"/status

# The operator's part: the pointer file naming jobfeeder's folder (root's, read-only to the
# service) and folders for the stand-ins' records.
printf '/opt/kvt-standin\n' >$data/Velmora/Corvina
install -d -o kvtnetd -g kvtnetd $data/standin $data/standin/shadeproof
echo 7 >$data/standin/shadeproof/exit-code

# Every user's jobs with names and owners.
kvtctl jobs >/tmp/jobs.txt 2>&1
cat /tmp/jobs.txt
check "listing shows alice's job name and owner" grep -Eq 'alice-payroll +alice' /tmp/jobs.txt
check "listing shows bob's job name and owner" grep -Eq 'bob-contract +bob' /tmp/jobs.txt

# A cancel of another user's job.
ref=$(awk '/alice-payroll/ { for (i = 1; i <= NF; i++) if ($i ~ /^\*[0-9]+-[0-9]+$/) print $i }' /tmp/jobs.txt)
kvtctl cancel "$ref"
check "alice's job $ref is cancelled" sh -c '[ -z "$(lpstat -W not-completed -u alice)" ]'
check "bob's job is still there" sh -c '[ -n "$(lpstat -W not-completed -u bob)" ]'

# An upload that starts jobfeeder, then a hand-off to it.
check "upload answered" kvtctl upload /etc/hostname --name 178000000000042
check "the spool file holds the upload" cmp -s /etc/hostname $spool/178000000000042.spl
check "jobfeeder was started" wait_for sh -c "ls $data/standin | grep -q '^jobfeeder-start-'"
python3 - <<'PY' && ok "hand-off: jobfeeder -l served the connection" || bad "hand-off"
import socket
s = socket.create_connection(("127.0.0.1", 51470), timeout=20)
s.sendall(bytes([4, 3, 2, 1]))
assert s.recv(1) == b"\x01"
s.sendall(b"KVT\x08")
got = b""
while len(got) < 8:
    part = s.recv(8 - len(got))
    assert part
    got += part
assert got == b"JOBFEED\n", got
s.sendall(b"x")
assert s.recv(1) == b"x"
print("jobfeeder answered", got)
PY
starts=$(cat $data/standin/jobfeeder-start-* | sort -n | awk -F '\t' '{ printf "%s,", $2 }')
check "jobfeeder started exactly twice: the upload (no arguments), the hand-off (-l): $starts" \
  test "$starts" = ",-l,"

# The colour tool, from the default program folder, its exit code carried back.
check "colour tool started, its exit code 7 answered" \
  test "$(kvtctl register-table Proof /etc/hostname)" = 7

# Deletes: inside the data folder they work; outside it they answer 0 and the file stays.
mkdir -p /var/lib/kvt-outside && echo keep >/var/lib/kvt-outside/root-owned
deny() {
  if kvtctl delete "$1" 2>&1 | grep -q "not deleted (answer 0)" && [ -e "$1" ]; then
    ok "delete $1 answered 0, the file is still there"
  else
    bad "delete $1 must fail and leave the file"
  fi
}
deny /var/lib/kvt-outside/root-owned
deny /usr/bin/kvtctl
deny $data/Velmora/Corvina
if [ "$mode" = nspawn ]; then
  # The service's own file outside the data folder: only the sandbox keeps it.
  install -d -o kvtnetd -g kvtnetd /srv/kvt-owned
  echo keep >/srv/kvt-owned/victim && chown kvtnetd:kvtnetd /srv/kvt-owned/victim
  deny /srv/kvt-owned/victim
fi
cp /etc/hostname $spool/178000000000043.spl && chown kvtnetd:kvtnetd $spool/178000000000043.spl
check "delete inside the spool folder works" kvtctl delete $spool/178000000000043.spl
check "  and the file is gone" test ! -e $spool/178000000000043.spl

if [ "$mode" = nspawn ]; then
  # The address rule: a private source address gets in, a public one gets no answer.
  ip addr add 10.9.8.7/32 dev lo && ip addr add 198.51.100.7/32 dev lo
  python3 - <<'PY' && ok "a client from 10.9.8.7 connects; one from 198.51.100.7 is dropped" ||
import socket
def opens(source):
    s = socket.socket()
    s.settimeout(3)
    s.bind((source, 0))
    try:
        s.connect(("127.0.0.1", 51470))
        s.sendall(bytes([4, 3, 2, 1]))
        return s.recv(1) == b"\x01"
    except OSError:
        return False
private, public = opens("10.9.8.7"), opens("198.51.100.7")
print("10.9.8.7:", private, "198.51.100.7:", public)
assert private and not public
PY
    bad "address rule"
fi

# A reinstall (the upgrade path of the scripts) restarts the service and leaves the
# operator's servers file as edited.
servers=/etc/kvtweb/servers
sed -i 's/this workstation/proof room/' $servers
cp $servers /tmp/servers.edited
if [ "$mode" = nspawn ]; then
  systemctl reload kvtweb
  check "a reload reads the edited servers file" wait_for scraped 'label="proof room"} 1'
  before=$(systemctl show -P MainPID kvtnetd)
  apt-get install --reinstall -y -q "$pkg"/kvtnetd_*_amd64.deb >/tmp/apt-reinstall.log 2>&1 ||
    { cat /tmp/apt-reinstall.log; bad "apt-get install --reinstall"; }
  check "a reinstall restarted the service" wait_for sh -c \
    "systemctl is-active -q kvtnetd && [ \"\$(systemctl show -P MainPID kvtnetd)\" != $before ]"
  check "after it kvtweb still reads the edited servers file" wait_for scraped 'label="proof room"} 1'
else
  apt-get install --reinstall -y -q "$pkg"/kvtnetd_*_amd64.deb >/tmp/apt-reinstall.log 2>&1 ||
    { cat /tmp/apt-reinstall.log; bad "apt-get install --reinstall"; }
fi
check "the reinstall left the edited servers file as it was" cmp -s $servers /tmp/servers.edited

# Removal: the service stops, the package's files go, the data folder stays.
dpkg -L kvtnetd >/tmp/files.txt
[ "$mode" = chroot ] && kill "$pid"
apt-get remove -y -q kvtnetd >/tmp/apt-remove.log 2>&1 || { cat /tmp/apt-remove.log; bad "apt-get remove"; }
[ "$mode" = nspawn ] && check "removal stopped the service" sh -c '! systemctl is-active -q kvtnetd'
[ "$mode" = chroot ] && wait "$pid"
check "removal left no server process" sh -c "! kill -0 $pid 2>/dev/null"
left=$(while read -r f; do [ -d "$f" ] || [ ! -e "$f" ] || [ "$f" = $servers ] || echo "$f"; done </tmp/files.txt)
check "removal left none of the package's files but the conffile${left:+: $left}" test -z "$left"
check "removal kept the servers file as edited" cmp -s $servers /tmp/servers.edited
check "removal left no enablement link" \
  test ! -e /etc/systemd/system/multi-user.target.wants/kvtnetd.service
check "removal kept the spool file" cmp -s /etc/hostname $spool/178000000000042.spl
check "package state after removal: $(dpkg-query -W -f='${Status}' kvtnetd)" \
  test "$(dpkg-query -W -f='${Status}' kvtnetd)" = "deinstall ok config-files"

# Purge: the data folder goes too; the system user stays (Debian keeps system users).
apt-get purge -y -q kvtnetd >/tmp/apt-purge.log 2>&1 || { cat /tmp/apt-purge.log; bad "apt-get purge"; }
check "purge removed /var/lib/kvtnetd" test ! -e $data
check "purge removed the servers file" test ! -e $servers
check "purge left no trace in dpkg" \
  sh -c '! dpkg-query -W -f="\${Status}" kvtnetd 2>/dev/null | grep -Eq "ok (installed|config-files)"'
check "the user kvtnetd stays after purge" id kvtnetd
sh $pkg/cups-fixture.sh down /run/cups >/dev/null
finish
