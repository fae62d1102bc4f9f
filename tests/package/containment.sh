#!/bin/sh
# The package's containment test. It installs the .deb with the package manager in a
# throw-away copy of this machine (an overlay over / on a tmpfs, gone when the test ends),
# boots that copy with systemd as process 1 and a private network (systemd-nspawn), so the
# real unit runs with every sandbox setting enforced, and runs checks.sh there: the
# service's work over the wire, what it must not reach, an upgrade, removal and purge.
#   containment.sh DEB STANDINS [OLD_DEB]    STANDINS: the folder of the built jobfeeder and
#   ShadeProof.exe; OLD_DEB: a package of an earlier version, installed first and upgraded
# Without systemd-nspawn, where it cannot boot the copy, or with KVT_PACKAGE_MODE=chroot,
# the same copy is entered with chroot in private network and process namespaces, and
# checks.sh starts the server with the unit's user, groups and environment through setpriv:
# the sandbox itself is then not exercised.
# Needs root. Exit status 0 when every check passed.
set -eu
here=$(cd "$(dirname "$0")" && pwd)

if [ "${1:-}" != --inside-namespace ]; then
  [ $# -eq 2 ] || [ $# -eq 3 ] || { echo "usage: $0 DEB STANDINS [OLD_DEB]" >&2; exit 2; }
  old=${3:+$(realpath "$3")}
  [ "$(id -u)" = 0 ] || { echo "containment.sh: needs root (mounts, nspawn)" >&2; exit 2; }
  mode=${KVT_PACKAGE_MODE:-nspawn}
  if [ "$mode" = nspawn ] && ! command -v systemd-nspawn >/dev/null 2>&1; then
    echo "containment.sh: systemd-nspawn is not installed (systemd-container): falling back to" \
         "setpriv in a chroot; the unit's sandbox is NOT exercised"
    mode=chroot
  fi
  scratch=$(mktemp -d /tmp/kvt-package.XXXXXX)
  trap 'rm -rf "$scratch"' EXIT
  mkdir "$scratch/results" "$scratch/overlay"
  # A private mount namespace: the overlay and everything mounted for it vanish with it.
  code=0
  unshare -m --propagation private sh "$0" --inside-namespace "$mode" "$scratch" \
    "$(realpath "$1")" "$(realpath "$2")" $old || code=$?
  if [ "$mode" = nspawn ] && [ ! -s "$scratch/results/log" ]; then
    echo "containment.sh: systemd-nspawn could not boot the test system:"
    tail -n 20 "$scratch/console.log" 2>/dev/null || true
    echo "containment.sh: falling back to setpriv in a chroot; the unit's sandbox is NOT exercised"
    mode=chroot code=0
    unshare -m --propagation private sh "$0" --inside-namespace "$mode" "$scratch" \
      "$(realpath "$1")" "$(realpath "$2")" || code=$?
  fi
  cat "$scratch/results/log" 2>/dev/null || true
  if [ "$(cat "$scratch/results/status" 2>/dev/null)" != PASS ]; then
    echo "--- the system's console:"
    tail -n 60 "$scratch/console.log" 2>/dev/null || true
    echo "containment test FAILED (exit $code)"
    exit 1
  fi
  [ "$mode" = nspawn ] && echo "containment test passed (nspawn: the real unit, sandbox enforced)" ||
    echo "containment test passed (setpriv fallback: the unit's sandbox was NOT exercised)"
  exit 0
fi

mode=$2 scratch=$3 deb=$4 standins=$5 old=${6:-}
mount -t tmpfs -o size=4G,mode=0755 kvt-package "$scratch/overlay"
cd "$scratch/overlay"
mkdir upper work root
mount -t overlay overlay -o lowerdir=/,upperdir="$PWD/upper",workdir="$PWD/work" root
root=$PWD/root

# What the checks need inside: the package, the scheduler fixture, the checks, and the
# stand-ins where an operator's pointer file and the default program folder put them.
mkdir -p "$root/root/kvt-package" "$root/opt/kvt-standin" "$root/opt/KVT/ShadeProof" \
         "$root/kvt-results"
cp "$deb" "$here/checks.sh" "$here/../print/cups-fixture.sh" "$root/root/kvt-package/"
if [ -n "$old" ]; then mkdir "$root/root/kvt-package/old" && cp "$old" "$root/root/kvt-package/old/"; fi
cp "$standins/jobfeeder" "$root/opt/kvt-standin/jobfeeder.bin"
cp "$standins/ShadeProof.exe" "$root/opt/kvt-standin/ShadeProof.bin"
# The stand-ins record their starts in $KVT_STANDIN_DIR, inside the service's data folder.
cat > "$root/opt/kvt-standin/jobfeeder" <<'SH'
#!/bin/sh
KVT_STANDIN_DIR=/var/lib/kvtnetd/standin exec /opt/kvt-standin/jobfeeder.bin "$@"
SH
cat > "$root/opt/KVT/ShadeProof/ShadeProof.exe" <<'SH'
#!/bin/sh
KVT_STANDIN_DIR=/var/lib/kvtnetd/standin/shadeproof exec /opt/kvt-standin/ShadeProof.bin "$@"
SH
chmod 755 "$root/opt/kvt-standin/"* "$root/opt/KVT/ShadeProof/ShadeProof.exe"

if [ "$mode" = chroot ]; then
  mount --bind "$scratch/results" "$root/kvt-results"
  mount --rbind /dev "$root/dev"
  mount --rbind /sys "$root/sys"
  mount -t tmpfs tmpfs "$root/run"
  mount -t tmpfs tmpfs "$root/tmp"
  # Its own network and process namespaces: the checks see and signal only their server.
  exec unshare -n -p -f chroot "$root" sh -c \
    'mount -t proc proc /proc && ip link set lo up && sh /root/kvt-package/checks.sh chroot' \
    >"$scratch/console.log" 2>&1
fi

# The checks run as a oneshot unit of the booted system, which powers off when they end.
cat > "$root/etc/systemd/system/kvt-package-check.service" <<'UNIT'
[Unit]
Description=KVTnetd package checks
SuccessAction=poweroff-force
FailureAction=poweroff-force
[Service]
Type=oneshot
ExecStart=/bin/sh /root/kvt-package/checks.sh nspawn
TimeoutStartSec=400
UNIT
cat > "$root/etc/systemd/system/kvt-package.target" <<'UNIT'
[Unit]
Description=KVTnetd package test
Requires=basic.target kvt-package-check.service
After=basic.target
AllowIsolate=yes
UNIT
# --system-call-filter=bpf: without it IPAddressDeny= is silently not enforced.
timeout 600 systemd-nspawn -q -D "$root" --private-network --link-journal=no --register=no \
  --keep-unit --console=pipe --system-call-filter=bpf --bind="$scratch/results:/kvt-results" \
  -b -- systemd.unit=kvt-package.target systemd.mask=cups.service systemd.mask=cups.socket \
  systemd.mask=cups.path >"$scratch/console.log" 2>&1 </dev/null
