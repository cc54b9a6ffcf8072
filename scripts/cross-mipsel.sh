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

. ./scripts/lib/pkgs.sh

install_all() {
  # Both arches' OpenSSL at one version, pinned (scripts/lib/pkgs.sh says
  # why), before anything that depends on it.
  qdq_pair_openssl mipsel
  # The host's tools (cmake, python3-pytest, openssl, ...), then the cross
  # ones. (gcc-multilib conflicts with the cross compiler.)
  ./scripts/deps.sh
  qdq_apt_install g++-mipsel-linux-gnu binutils-mipsel-linux-gnu qemu-user libcjson-dev:mipsel \
    libgtest-dev:mipsel libstdc++6:mipsel pkgconf:mipsel
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
