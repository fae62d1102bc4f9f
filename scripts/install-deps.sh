#!/usr/bin/env bash
# Installs the Debian packages the build needs, only those missing.
#   scripts/install-deps.sh          the Linux build (g++, CMake, GoogleTest, CUPS, cpp-httplib)
#   scripts/install-deps.sh windows  also the Windows cross-build and Wine
#   scripts/install-deps.sh fuzz     also clang and its libFuzzer runtime
#   scripts/install-deps.sh web      also headless Chromium and selenium for kvtweb's tests
# Sets combine: scripts/install-deps.sh windows web
set -euo pipefail

packages=(g++ cmake make googletest libgtest-dev libcups2-dev cups cups-client cups-bsd
          libcpp-httplib-dev pkg-config)
for set in "$@"; do
  case "$set" in
    windows) packages+=(g++-mingw-w64-x86-64-posix gcc-mingw-w64-x86-64-posix mingw-w64-x86-64-dev
                        wine wine64) ;;
    fuzz) packages+=(clang libclang-rt-14-dev) ;;
    web) packages+=(chromium chromium-driver python3-selenium) ;;
    *) echo "install-deps.sh: unknown set $set" >&2; exit 2 ;;
  esac
done

missing=()
for p in "${packages[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed" || missing+=("$p")
done
[[ ${#missing[@]} -eq 0 ]] && exit 0

sudo=()
[[ $(id -u) -ne 0 ]] && sudo=(sudo)
echo "Installing: ${missing[*]}"
"${sudo[@]}" apt-get update -qq
DEBIAN_FRONTEND=noninteractive "${sudo[@]}" apt-get install -y -qq --no-install-recommends "${missing[@]}"
