#!/bin/sh
# Installs the Debian packages the build, the tools and the tests need.
# gcc-mipsel-linux-gnu proves the 32-bit record layouts (gcc-multilib would
# conflict with it and with scripts/cross-mipsel.sh).
set -eu
pkgs="build-essential cmake pkgconf libcjson-dev libssl-dev libgtest-dev googletest \
      gcc-mipsel-linux-gnu python3 python3-pytest openssl wget tar iproute2 util-linux \
      procps coreutils binutils"
missing=""
for p in $pkgs; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed" || missing="$missing $p"
done
if [ -n "$missing" ]; then
  export DEBIAN_FRONTEND=noninteractive
  apt-get update -qq
  apt-get install -y -qq $missing >/dev/null
fi
