#!/usr/bin/env bash
# Installs the Debian packages the build needs, only those missing.
#   scripts/install-deps.sh          the Linux build (g++, CMake, GoogleTest, CUPS, kvtweb's
#                                    libraries, cpp-httplib for the benchmark)
#   scripts/install-deps.sh windows  also the Windows cross-build, Wine, and kvtweb's libraries
#                                    cross-built from Debian's sources (scripts/windows-deps.sh)
#   scripts/install-deps.sh fuzz     also clang and its libFuzzer runtime
#   scripts/install-deps.sh web      also headless Chromium, selenium and Prometheus (server and
#                                    promtool) for kvtweb's tests
# Sets combine: scripts/install-deps.sh windows web
set -euo pipefail

packages=(g++ cmake make googletest libgtest-dev libcups2-dev cups cups-client cups-bsd
          libcpp-httplib-dev pkg-config nlohmann-json3-dev libmicrohttpd-dev prometheus-cpp-dev)
for set in "$@"; do
  case "$set" in
    windows) packages+=(g++-mingw-w64-x86-64-posix gcc-mingw-w64-x86-64-posix mingw-w64-x86-64-dev
                        wine wine64 dpkg-dev) ;;
    fuzz) packages+=(clang libclang-rt-14-dev) ;;
    web) packages+=(chromium chromium-driver python3-selenium prometheus) ;;
    *) echo "install-deps.sh: unknown set $set" >&2; exit 2 ;;
  esac
done

missing=()
for p in "${packages[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed" || missing+=("$p")
done
sudo=()
[[ $(id -u) -ne 0 ]] && sudo=(sudo)
if [[ ${#missing[@]} -gt 0 ]]; then
  echo "Installing: ${missing[*]}"
  "${sudo[@]}" apt-get update -qq
  DEBIAN_FRONTEND=noninteractive "${sudo[@]}" apt-get install -y -qq --no-install-recommends "${missing[@]}"
fi
for set in "$@"; do
  [[ $set == windows ]] && "${sudo[@]}" "$(dirname "$0")/windows-deps.sh"
done
exit 0
