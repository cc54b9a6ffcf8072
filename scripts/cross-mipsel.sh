#!/bin/sh
# Cross build for the gateway (MIPS32 little-endian) and the test suite run
# under qemu-mipsel user-mode emulation: installs what is missing (Debian's
# cross compiler, the emulator, the mipsel multiarch packages of cJSON,
# OpenSSL and GoogleTest), builds every target with the router flags and
# runs CTest with qemu-mipsel as its emulator.
#   scripts/cross-mipsel.sh [build-dir]        (default: build-mipsel)
# Environment: QDQ_CROSS_FLAGS adds CMake options (e.g. -DQDQUICK_SMALL=OFF);
# QDQ_MIPSEL_TOOLCHAIN names another toolchain file (a vendor's SDK);
# QDQ_CROSS_NO_INSTALL=1 installs nothing (for machines set up already).
set -eu
cd "$(dirname "$0")/.."
dir=${1:-build-mipsel}
jobs=$(nproc)

installed_version() {
  dpkg-query -W -f='${Status} ${Version}' "$1" 2>/dev/null | sed -n 's/^install ok installed //p'
}

apt_ready=no
apt_update() {
  if [ "$apt_ready" = no ]; then
    export DEBIAN_FRONTEND=noninteractive
    apt-get update -qq
    apt_ready=yes
  fi
}

install_all() {
  if ! dpkg --print-foreign-architectures | grep -qx mipsel; then
    dpkg --add-architecture mipsel
    apt_update
  fi

  # OpenSSL is Multi-Arch: same, so the amd64 and mipsel packages must be
  # the very same version, and the security archive carries no mipsel
  # builds: both arches are installed at the mipsel version and held there,
  # so that an upgrade of the host's libssl cannot break the pair.
  ssl_version=$(installed_version libssl-dev:mipsel)
  if [ -z "$ssl_version" ]; then
    apt_update
    ssl_version=$(apt-cache policy libssl-dev:mipsel | sed -n 's/^ *Candidate: //p')
  fi
  ssl_pkgs="libssl3:amd64 libssl-dev:amd64 libssl3:mipsel libssl-dev:mipsel"
  ssl_wanted=""
  for p in $ssl_pkgs; do
    [ "$(installed_version "$p")" = "$ssl_version" ] || ssl_wanted="$ssl_wanted $p=$ssl_version"
  done
  if [ -n "$ssl_wanted" ]; then
    apt_update
    apt-get install -y -qq --allow-downgrades $ssl_wanted >/dev/null
    apt-mark hold $ssl_pkgs >/dev/null
  fi

  # The host's tools (cmake, python3-pytest, openssl, ...), then the cross
  # ones. (gcc-multilib conflicts with the cross compiler.)
  ./scripts/deps.sh
  missing=""
  for p in g++-mipsel-linux-gnu binutils-mipsel-linux-gnu qemu-user libcjson-dev:mipsel \
           libgtest-dev:mipsel libstdc++6:mipsel pkgconf:mipsel; do
    [ -n "$(installed_version "$p")" ] || missing="$missing $p"
  done
  if [ -n "$missing" ]; then
    apt_update
    apt-get install -y -qq $missing >/dev/null
  fi
}

[ "${QDQ_CROSS_NO_INSTALL:-0}" = 1 ] || install_all

cmake -S . -B "$dir" -DCMAKE_TOOLCHAIN_FILE="${QDQ_MIPSEL_TOOLCHAIN:-$PWD/cmake/toolchain-mipsel-linux-gnu.cmake}" \
      -DQDQUICK_SMALL=ON ${QDQ_CROSS_FLAGS:-} >/dev/null
if ! cmake --build "$dir" -j "$jobs" > "$dir/build.log" 2>&1; then
  grep -E "error|Error" "$dir/build.log" | head -n 20
  echo "=== mipsel build FAILED ==="
  exit 1
fi
echo "=== mipsel build: running tests under qemu-mipsel ==="
status=0
(cd "$dir" && ctest -j "$jobs" --output-on-failure --timeout 600) > "$dir/ctest.log" 2>&1 || status=1
grep -E "tests passed|tests failed|The following tests FAILED|^\s+[0-9]+ - |Total Test time|^(FAILED|ERROR) |Failure$" "$dir/ctest.log" \
  || tail -n 20 "$dir/ctest.log"
exit $status
