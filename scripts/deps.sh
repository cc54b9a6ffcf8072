#!/bin/sh
# Installs the Debian packages the build, the tools and the tests need.
# cpulimit and passwd (useradd) confine plugins for real in the tests.
# gcc-mipsel-linux-gnu proves the 32-bit record layouts (gcc-multilib would
# conflict with it and with scripts/cross-mipsel.sh).
set -eu
. "$(dirname "$0")/lib/pkgs.sh"
qdq_apt_install build-essential cmake pkgconf libcjson-dev libssl-dev libgtest-dev googletest \
  gcc-mipsel-linux-gnu python3 python3-pytest openssl wget tar iproute2 util-linux \
  procps coreutils binutils cpulimit passwd
