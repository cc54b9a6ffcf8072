# Debian package installation shared by every script that installs
# (sourced, POSIX sh). Idempotent: a second run on the same machine asks
# apt for nothing.
#
# Environment, for the tests of this file:
#   QDQ_DPKG_ADMINDIR   dpkg's database (default /var/lib/dpkg)
#   QDQ_APT_PREFS_DIR   apt's preferences folder (default /etc/apt/preferences.d)

qdq_dpkg_admindir=${QDQ_DPKG_ADMINDIR:-/var/lib/dpkg}
qdq_apt_prefs_dir=${QDQ_APT_PREFS_DIR:-/etc/apt/preferences.d}
qdq_apt_updated=no

# qdq_installed PKG[:ARCH]: PKG is unpacked and configured. The selection
# state does not matter: a held or pinned package is as installed as any
# ("hold ok installed" is installed). Without :ARCH the native or an
# architecture-independent package counts, not another arch's copy.
qdq_installed() {
  _arch=${1#*:}
  [ "$_arch" = "$1" ] && _arch=$(dpkg --print-architecture)
  dpkg-query --admindir="$qdq_dpkg_admindir" -W -f='${Architecture} ${db:Status-Status}\n' "$1" \
      2>/dev/null | grep -Eq "^($_arch|all) installed\$"
}

# qdq_version PKG:ARCH: the installed version, or nothing.
qdq_version() {
  qdq_installed "$1" || return 0
  dpkg-query --admindir="$qdq_dpkg_admindir" -W -f='${Version}' "$1" 2>/dev/null
}

qdq_apt_update() {
  if [ "$qdq_apt_updated" = no ]; then
    export DEBIAN_FRONTEND=noninteractive
    apt-get update -qq
    qdq_apt_updated=yes
  fi
}

# qdq_apt_install PKG...: installs those not installed yet.
qdq_apt_install() {
  _missing=""
  for _p in "$@"; do
    qdq_installed "$_p" || _missing="$_missing $_p"
  done
  [ -n "$_missing" ] || return 0
  qdq_apt_update
  # shellcheck disable=SC2086
  apt-get install -y -qq $_missing >/dev/null
}

# qdq_add_arch ARCH: dpkg installs packages of ARCH too.
qdq_add_arch() {
  dpkg --print-foreign-architectures | grep -qx "$1" && return 0
  dpkg --add-architecture "$1"
  qdq_apt_updated=no
  qdq_apt_update
}

# qdq_newest_version PKG:ARCH: the newest version the archives offer.
qdq_newest_version() {
  _best=""
  for _v in $(apt-cache madison "$1" 2>/dev/null | awk -F'|' '{gsub(/ /, "", $2); print $2}'); do
    if [ -z "$_best" ] || dpkg --compare-versions "$_v" gt "$_best"; then _best=$_v; fi
  done
  printf '%s' "$_best"
}

# qdq_pair_openssl FOREIGN_ARCH: libssl3 and libssl-dev at one version for
# the native and the foreign arch. OpenSSL is Multi-Arch: same, so both
# arches must carry the very same version, and the security archive has
# no builds for every arch: both are installed at the newest version the
# foreign arch has, and pinned there.
#
# A pin, not a hold: a hold only forbids changes, so any later request that
# touches OpenSSL (installing libssl-dev again, an upgrade that pulls the
# security version) makes apt give up with "held packages" errors. A pin of
# priority 1001 makes the pinned version the candidate of every request:
# `apt-get upgrade` and `apt-get install libssl-dev` keep the pair, and
# nothing breaks. Holds left by earlier versions of this script are
# released.
qdq_pair_openssl() {
  _foreign=$1
  _native=$(dpkg --print-architecture)
  qdq_add_arch "$_foreign"
  _want=$(qdq_newest_version "libssl-dev:$_foreign")
  if [ -z "$_want" ]; then
    qdq_apt_update
    _want=$(qdq_newest_version "libssl-dev:$_foreign")
  fi
  # No archive answer (offline): keep what is installed.
  [ -n "$_want" ] || _want=$(qdq_version "libssl-dev:$_foreign")
  if [ -z "$_want" ]; then
    echo "no version of libssl-dev:$_foreign is known to apt" >&2
    return 1
  fi
  _pkgs="libssl3:$_native libssl-dev:$_native libssl3:$_foreign libssl-dev:$_foreign"

  _pin="$qdq_apt_prefs_dir/qdquick-openssl.pref"
  _text="# qdquick: OpenSSL at one version for $_native and $_foreign (scripts/lib/pkgs.sh)
Package: libssl3 libssl-dev libssl3:$_foreign libssl-dev:$_foreign
Pin: version $_want
Pin-Priority: 1001"
  if [ "$(cat "$_pin" 2>/dev/null)" != "$_text" ]; then
    mkdir -p "$qdq_apt_prefs_dir"
    printf '%s\n' "$_text" > "$_pin"
  fi
  _held=$(apt-mark showhold 2>/dev/null | grep -E '^libssl(3|-dev)(:|$)' || true)
  # shellcheck disable=SC2086
  [ -z "$_held" ] || apt-mark unhold $_held >/dev/null

  _wanted=""
  for _p in $_pkgs; do
    [ "$(qdq_version "$_p")" = "$_want" ] || _wanted="$_wanted $_p=$_want"
  done
  [ -n "$_wanted" ] || return 0
  qdq_apt_update
  # shellcheck disable=SC2086
  apt-get install -y -qq --allow-downgrades $_wanted >/dev/null
}
