#!/usr/bin/env bash
# kvtweb's libraries for the Windows build, made from Debian's own source packages: Debian
# ships libmicrohttpd and prometheus-cpp for Linux only. The sources come through a private
# deb-src list (the machine's apt configuration is left as it is), are unpacked with Debian's
# patches and cross-built with mingw-w64 (posix threads, static) into build/windows-deps,
# which the windows preset uses. nlohmann-json is header-only: Debian's header serves both.
#   scripts/windows-deps.sh    does nothing when build/windows-deps is complete
set -euo pipefail
cd "$(dirname "$0")/.."
root=$PWD
out=$root/build/windows-deps
[[ -f $out/.complete ]] && exit 0

work=$root/build/windows-deps-src
rm -rf "$work" "$out"
mkdir -p "$work/apt/lists/partial" "$work/apt/sources"
# The machine's deb lines, as deb-src lines, in a list of our own.
for f in /etc/apt/sources.list.d/*.sources; do
  [[ -f $f ]] && sed 's/^Types: deb$/Types: deb-src/' "$f" >"$work/apt/sources/$(basename "$f")"
done
if [[ -f /etc/apt/sources.list ]]; then
  sed -n 's/^deb /deb-src /p' /etc/apt/sources.list >"$work/apt/sources/main.list"
fi
apt=(-o Dir::Etc::SourceList=/dev/null -o "Dir::Etc::SourceParts=$work/apt/sources"
     -o "Dir::State::Lists=$work/apt/lists" -o APT::Sandbox::User=root)
apt-get "${apt[@]}" -qq update
(cd "$work" && apt-get "${apt[@]}" -qq source libmicrohttpd prometheus-cpp >/dev/null)

jobs=2
# libmicrohttpd: the event-driven HTTP server; plain HTTP only, its own Windows threads.
(cd "$work"/libmicrohttpd-*/ &&
 ./configure -q --host=x86_64-w64-mingw32 CC=x86_64-w64-mingw32-gcc-posix --prefix="$out" \
   --enable-static --disable-shared --disable-https --disable-doc --disable-examples \
   --disable-curl --disable-nls --disable-dauth --disable-bauth --without-gnutls >/dev/null &&
 make -s -j$jobs -C src/microhttpd install >/dev/null 2>&1)
[[ -f $out/lib/libmicrohttpd.a ]] || { echo "windows-deps.sh: libmicrohttpd did not build" >&2; exit 1; }
install -D -m 644 "$work"/libmicrohttpd-*/src/include/microhttpd.h "$out/include/microhttpd.h"

# prometheus-cpp: its core only (the text format); no pull part, so no second HTTP server.
cmake -S "$work"/prometheus-cpp-*/ -B "$work/prometheus-build" \
  -DCMAKE_TOOLCHAIN_FILE="$root/cmake/mingw-w64-x86_64.cmake" -DCMAKE_BUILD_TYPE=Release \
  -DCMAKE_INSTALL_PREFIX="$out" -DBUILD_SHARED_LIBS=OFF -DENABLE_PULL=OFF -DENABLE_PUSH=OFF \
  -DENABLE_COMPRESSION=OFF -DENABLE_TESTING=OFF -DUSE_THIRDPARTY_LIBRARIES=OFF \
  -DGENERATE_PKGCONFIG=OFF >/dev/null
cmake --build "$work/prometheus-build" -j$jobs >/dev/null
cmake --install "$work/prometheus-build" >/dev/null

touch "$out/.complete"
rm -rf "$work"
echo "windows-deps.sh: libmicrohttpd and prometheus-cpp for Windows in $out"
