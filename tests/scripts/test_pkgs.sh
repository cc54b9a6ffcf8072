#!/bin/sh
# The install helper (scripts/lib/pkgs.sh) against the real dpkg-query on a
# made-up dpkg database, with apt-get, apt-cache and apt-mark replaced by
# recorders: held packages count as installed, a second run asks apt for
# nothing, and the OpenSSL pair is pinned, not held.
set -eu
top=$(cd "$(dirname "$0")/../.." && pwd)
work=$(mktemp -d "${TMPDIR:-/tmp}/qdq-pkgs.XXXXXX")
trap 'rm -rf "$work"' EXIT
mkdir -p "$work/bin" "$work/dpkg/updates" "$work/prefs"
log=$work/apt.log; : > "$log"
native=$(/usr/bin/dpkg --print-architecture)
echo mipsel > "$work/foreign"

# entry NAME ARCH STATUS VERSION [Multi-Arch]
entry() {
  printf 'Package: %s\nStatus: %s\nArchitecture: %s\nVersion: %s\n' "$1" "$3" "$2" "$4"
  [ -z "${5:-}" ] || printf 'Multi-Arch: %s\n' "$5"
  printf 'Maintainer: nobody\nDescription: test\n\n'
}
old=3.0.19-1 pair=3.0.20-1 sec=3.0.22-1
{
  entry plain "$native" "install ok installed" 1
  entry held "$native" "hold ok installed" 1
  entry indep all "hold ok installed" 1
  entry removed "$native" "deinstall ok config-files" 1
  entry halfway "$native" "install ok unpacked" 1
  entry libssl3 "$native" "hold ok installed" "$sec" same
  entry libssl-dev "$native" "hold ok installed" "$sec" same
  entry libssl3 mipsel "hold ok installed" "$pair" same
  entry libssl-dev mipsel "install ok installed" "$pair" same
} > "$work/dpkg/status"

cat > "$work/bin/dpkg" <<EOT
#!/bin/sh
case "\$1" in
  --print-architecture) echo $native ;;
  --print-foreign-architectures) cat "$work/foreign" ;;
  --add-architecture) echo "\$2" >> "$work/foreign"; echo "dpkg \$*" >> "$log" ;;
  *) exec /usr/bin/dpkg "\$@" ;;
esac
EOT
cat > "$work/bin/apt-get" <<EOT
#!/bin/sh
echo "apt-get \$*" >> "$log"
EOT
# madison: the security archive's newer amd64 build is no mipsel candidate.
cat > "$work/bin/apt-cache" <<EOT
#!/bin/sh
[ "\$1" = madison ] || exit 1
case "\$2" in
  *:mipsel) printf ' %s | %s | http://deb.example/debian bookworm/main mipsel Packages\n' "\$2" $old "\$2" $pair ;;
  *) printf ' %s | %s | http://deb.example/debian-security amd64 Packages\n' "\$2" $sec ;;
esac
EOT
cat > "$work/bin/apt-mark" <<EOT
#!/bin/sh
echo "apt-mark \$*" >> "$log"
[ "\$1" = showhold ] && sed -n 's/^Package: //p' "$work/held" 2>/dev/null
exit 0
EOT
printf 'Package: libssl3\nPackage: libssl3:mipsel\nPackage: libssl-dev\n' > "$work/held"
chmod +x "$work/bin/"*
export PATH="$work/bin:$PATH" QDQ_DPKG_ADMINDIR="$work/dpkg" QDQ_APT_PREFS_DIR="$work/prefs"
. "$top/scripts/lib/pkgs.sh"

fail=0
check() {  # check WHAT EXPECTED ACTUAL
  if [ "$2" = "$3" ]; then echo "ok: $1"; else echo "FAIL: $1: expected [$2], got [$3]"; fail=1; fi
}
yesno() { if qdq_installed "$1"; then echo yes; else echo no; fi; }

for row in plain:yes held:yes indep:yes removed:no halfway:no absent:no \
           libssl3:yes libssl3:mipsel:yes libssl-dev:mipsel:yes libssl3:armhf:no; do
  pkg=${row%:*}
  check "installed $pkg" "${row##*:}" "$(yesno "$pkg")"
done
check "version of a held package" "$pair" "$(qdq_version libssl3:mipsel)"

: > "$log"; qdq_apt_install plain held indep
check "nothing to install: apt untouched" "" "$(cat "$log")"
qdq_apt_install plain held removed absent
check "only the missing ones, one update" "apt-get update -qq
apt-get install -y -qq removed absent" "$(cat "$log")"

: > "$log"; qdq_apt_updated=no; qdq_pair_openssl mipsel
pin=$(cat "$work/prefs/qdquick-openssl.pref")
check "pin names both arches" "Package: libssl3 libssl-dev libssl3:mipsel libssl-dev:mipsel" \
  "$(echo "$pin" | grep '^Package:')"
check "pin at the foreign arch's newest" "Pin: version $pair" "$(echo "$pin" | grep '^Pin:')"
check "holds released, native pair downgraded" "apt-mark showhold
apt-mark unhold libssl3 libssl3:mipsel libssl-dev
apt-get update -qq
apt-get install -y -qq --allow-downgrades libssl3:$native=$pair libssl-dev:$native=$pair" \
  "$(cat "$log")"

# As apt would have left it: the pair at one version, no holds.
sed -i "s/^Version: $sec/Version: $pair/; s/^Status: hold ok installed/Status: install ok installed/" "$work/dpkg/status"
: > "$work/held"; : > "$log"
qdq_apt_updated=no
qdq_pair_openssl mipsel
check "second run asks apt for nothing" "apt-mark showhold" "$(cat "$log")"
check "second run keeps the pin" "$pin" "$(cat "$work/prefs/qdquick-openssl.pref")"

: > "$work/foreign"; : > "$log"; qdq_apt_updated=no
qdq_add_arch mipsel
check "a missing arch is added once" "dpkg --add-architecture mipsel
apt-get update -qq" "$(cat "$log")"

if [ "$fail" = 0 ]; then echo "pkgs: all passed"; else exit 1; fi
