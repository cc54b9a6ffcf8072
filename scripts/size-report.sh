#!/bin/sh
# Flash footprint: stripped sizes of libqdquick.so and libqdplatform.so (and
# of qdquickd and qdquick-cli when the tree has them) for x86_64 and mipsel,
# with the default flags and with the router flags, the shared libraries each
# needs, and what the C++ runtime costs. Builds only those targets, in
# build-size/. Needs the cross tools of scripts/cross-mipsel.sh.
#   scripts/size-report.sh      (QDQ_MIPSEL_TOOLCHAIN: another toolchain file)
# Fails when the router build of libqdquick.so for mipsel reaches the budget.
set -eu
cd "$(dirname "$0")/.."
out=build-size
budget_kib=300
jobs=$(nproc)
mkdir -p "$out"

# build <name> <arch> <cmake options...>
build() {
  name=$1 arch=$2
  shift 2
  tc=""
  [ "$arch" = mipsel ] && tc="-DCMAKE_TOOLCHAIN_FILE=${QDQ_MIPSEL_TOOLCHAIN:-$PWD/cmake/toolchain-mipsel-linux-gnu.cmake}"
  cmake -S . -B "$out/$name" $tc -DQDQUICK_BUILD_TESTS=OFF "$@" >/dev/null
  targets="qdquick qdplatform"
  for t in qdquickd qdquick-cli; do
    cmake --build "$out/$name" --target help | grep "\.\.\. $t\$" >/dev/null && targets="$targets $t"
  done
  if ! cmake --build "$out/$name" -j "$jobs" --target $targets > "$out/$name.log" 2>&1; then
    tail -n 20 "$out/$name.log"
    echo "size-report: build $name failed" >&2
    exit 1
  fi
}

tool() { if [ "$1" = mipsel ]; then echo "mipsel-linux-gnu-$2"; else echo "$2"; fi; }

# stripped <arch> <file>: size in bytes of a stripped copy
stripped() {
  $(tool "$1" strip) --strip-all -o "$out/stripped.tmp" "$2"
  stat -c %s "$out/stripped.tmp"
}

needed() { $(tool "$1" readelf) -d "$2" | sed -n 's/.*(NEEDED).*\[\(.*\)\]/\1/p' | tr '\n' ' '; }

file_of() { # <build name> <binary name>: the built file, or nothing
  find "$out/$1" -name "$2" \( -type f -o -type l \) 2>/dev/null | head -n 1
}

kib() { awk -v b="$1" 'BEGIN { printf "%.1f", b / 1024 }'; }

build x86_64-default x86_64
build x86_64-router x86_64 -DQDQUICK_SMALL=ON
build mipsel-default mipsel
build mipsel-router mipsel -DQDQUICK_SMALL=ON
build mipsel-router-static mipsel -DQDQUICK_SMALL=ON -DQDQUICK_STATIC_CXXRT=ON
# Measured only: unwind tables are kept (see docs/mipsel.md).
build mipsel-router-nounwind mipsel -DQDQUICK_SMALL=ON "-DCMAKE_CXX_FLAGS=-fno-asynchronous-unwind-tables"

echo "Stripped sizes in KiB (bytes)"
printf '%-24s' "build"
bins="libqdquick.so libqdplatform.so qdquickd qdquick-cli"
for b in $bins; do printf '%-22s' "$b"; done
echo
for name in x86_64-default x86_64-router mipsel-default mipsel-router mipsel-router-static mipsel-router-nounwind; do
  arch=${name%%-*}
  printf '%-24s' "$name"
  for b in $bins; do
    f=$(file_of "$name" "$b")
    if [ -n "$f" ]; then
      s=$(stripped "$arch" "$f")
      printf '%-22s' "$(kib "$s") ($s)"
      eval "size_$(echo "$name" | tr '-' '_')_$(echo "$b" | tr '.-' '__')=$s"
    else
      printf '%-22s' "-"
    fi
  done
  echo
done

echo
echo "Shared libraries needed"
for name in x86_64-router mipsel-router mipsel-router-static; do
  arch=${name%%-*}
  for b in $bins; do
    f=$(file_of "$name" "$b")
    [ -n "$f" ] && printf '%-24s%-18s%s\n' "$name" "$b" "$(needed "$arch" "$f")"
  done
done

echo
echo "C++ runtime on mipsel"
rt=/usr/lib/mipsel-linux-gnu
stdcxx=$(stripped mipsel "$(readlink -f $rt/libstdc++.so.6)")
gccs=$(stripped mipsel "$(readlink -f $rt/libgcc_s.so.1)")
echo "  libstdc++.so.6, shared, stripped:   $(kib "$stdcxx") KiB (once per image, for every C++ program)"
echo "  libgcc_s.so.1, shared, stripped:    $(kib "$gccs") KiB (glibc loads it for thread cancellation anyway)"
static_cost=$((size_mipsel_router_static_libqdquick_so - size_mipsel_router_libqdquick_so))
echo "  linked statically into libqdquick.so:   +$(kib "$static_cost") KiB"
static_cost=$((size_mipsel_router_static_libqdplatform_so - size_mipsel_router_libqdplatform_so))
echo "  linked statically into libqdplatform.so: +$(kib "$static_cost") KiB"
nounwind=$((size_mipsel_router_libqdquick_so - size_mipsel_router_nounwind_libqdquick_so))
echo "  -fno-asynchronous-unwind-tables would save $(kib "$nounwind") KiB on libqdquick.so (not used)"
stripped mipsel "$(file_of mipsel-router libqdquick.so)" >/dev/null
tables=$(mipsel-linux-gnu-size -A "$out/stripped.tmp" \
  | awk '$1 == ".eh_frame" || $1 == ".eh_frame_hdr" || $1 == ".gcc_except_table" { s += $2 } END { print s + 0 }')
echo "  unwind tables in libqdquick.so (.eh_frame, its index, catch tables): $(kib "$tables") KiB (kept)"

echo
size=$size_mipsel_router_libqdquick_so
if [ "$size" -lt $((budget_kib * 1024)) ]; then
  echo "budget: mipsel libqdquick.so with router flags $(kib "$size") KiB < $budget_kib KiB: ok"
else
  echo "budget: mipsel libqdquick.so with router flags $(kib "$size") KiB >= $budget_kib KiB: OVER"
  exit 1
fi
