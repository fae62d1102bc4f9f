#!/usr/bin/env bash
# Builds the Debian package and tests it: lintian (no errors, no warnings), the man pages
# (mandoc and man without a warning), then the containment test, which installs the package
# in a throw-away copy of this machine booted under systemd-nspawn, checks the service over
# the wire, removes and purges it (tests/package/containment.sh). Where a Windows build
# exists (build/windows), its zip is made and its contents checked too. The upgrade test
# needs the 1.0.0 package: it is built once from the git history (commit ae0c647) into
# build/package-1.0.0 (the programs only: about 15 s on 2 cores). Run as root.
set -euo pipefail
cd "$(dirname "$0")/.."

scripts/install-deps.sh
needed=(dpkg-dev lintian mandoc man-db systemd-container python3 iproute2)
missing=()
for p in "${needed[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed" || missing+=("$p")
done
if [[ ${#missing[@]} -gt 0 ]]; then
  echo "Installing: ${missing[*]}"
  DEBIAN_FRONTEND=noninteractive apt-get install -y -qq --no-install-recommends "${missing[@]}"
fi

cmake --preset linux >/dev/null
cmake --build --preset linux
version=$(sed -n 's/^CMAKE_PROJECT_VERSION:STATIC=//p' build/linux/CMakeCache.txt)
deb=build/linux/kvtnetd_${version}_amd64.deb
rm -f "$deb"
(cd build/linux && cpack -G DEB >/dev/null)
echo "== $deb"
dpkg-deb -I "$deb" | sed -n '/Depends/p'

echo "== lintian"
code=0
report=$(lintian --fail-on error,warning "$deb" 2>&1) || code=$?
grep -v "running with root privileges" <<<"$report" || true
[[ $code == 0 ]] || { echo "lintian: errors or warnings (docs/deployment.md lists what may stay)"; exit 1; }
echo "lintian: no errors, no warnings"

echo "== man pages"
for page in build/linux/man/*.[18]; do
  out=$(mandoc -T lint "$page"; LC_ALL=C.UTF-8 man --warnings -E UTF-8 -l -Tutf8 -Z "$page" 2>&1 >/dev/null)
  [[ -z "$out" ]] || { echo "$page: $out"; exit 1; }
  echo "$page: no warnings"
done

if [[ -f build/windows/CMakeCache.txt && -f build/windows/kvtnetd.exe ]]; then
  echo "== Windows zip"
  zip=build/windows/kvtnetd-${version}-win64.zip
  rm -f "$zip"
  (cd build/windows && cpack -G ZIP >/dev/null)
  listing=$(python3 -c 'import sys, zipfile; print("\n".join(zipfile.ZipFile(sys.argv[1]).namelist()))' "$zip")
  echo "$listing"
  for f in kvtnetd.exe kvtctl.exe kvtweb.exe kvtweb-alerts.yml INSTALL.txt; do
    grep -q "/$f\$" <<<"$listing" || { echo "$zip lacks $f"; exit 1; }
  done
fi

echo "== the 1.0.0 package, to upgrade from"
old=build/package-1.0.0
old_deb=$old/build/kvtnetd_1.0.0_amd64.deb
if [[ ! -f $old_deb ]] && git cat-file -e ae0c647^{commit} 2>/dev/null; then
  rm -rf "$old" && mkdir -p "$old/src"
  git archive ae0c647 | tar -x -C "$old/src"
  cmake -S "$old/src" -B "$old/build" -DCMAKE_BUILD_TYPE=RelWithDebInfo -DKVT_BUILD_TESTS=OFF \
    -DCMAKE_SKIP_INSTALL_ALL_DEPENDENCY=ON >/dev/null
  cmake --build "$old/build" -j2 --target kvtnetd kvtctl kvtweb kvtnetd_man kvtctl_man kvtweb_man \
    kvt_changelog >/dev/null
  (cd "$old/build" && cpack -G DEB >/dev/null)
fi
if [[ -f $old_deb ]]; then
  echo "$old_deb"
else
  old_deb=""
  echo "commit ae0c647 is not in this clone's history: the upgrade is NOT tested"
fi

echo "== containment test"
sh tests/package/containment.sh "$deb" build/linux/tests/standins $old_deb
