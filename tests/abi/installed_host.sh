#!/bin/sh
# Installs the build tree into a temporary prefix, builds the C host against
# the installed headers and pkg-config files only, and runs it.
# In a cross build CC, CXX and PKG_CONFIG name the target's tools and
# QDQ_EMULATOR the program that runs target binaries (qemu-mipsel).
set -eu
build_dir=$1
src_dir=$2
work=$(mktemp -d /tmp/qdquick-abi-XXXXXX)
trap 'rm -rf "$work"' EXIT
cmake --install "$build_dir" --prefix "$work/prefix" >/dev/null
libdir=$(ls -d "$work"/prefix/lib*/pkgconfig | head -n 1 | xargs dirname)
export PKG_CONFIG_PATH="$libdir/pkgconfig"
pkg_config=${PKG_CONFIG:-pkg-config}
extra=""
case " ${QDQ_SANITIZE_FLAGS:-} " in *fsanitize*) extra="$QDQ_SANITIZE_FLAGS" ;; esac
# The host is plain C99 with every warning an error.
${CC:-cc} -std=c99 -pedantic -Wall -Wextra -Werror $extra \
  $($pkg_config --cflags qdquick qdplatform) "$src_dir/c_host.c" -o "$work/c_host" \
  $($pkg_config --libs qdquick qdplatform)
# The same headers compile as C++.
${CXX:-c++} -std=c++17 -Wall -Wextra -Werror -fsyntax-only -x c++ \
  $($pkg_config --cflags qdquick) "$src_dir/c_host.c"
# The installed programs start from their prefix alone: no LD_LIBRARY_PATH,
# no ldconfig; the libraries carry no search path of their own.
for lib in "$libdir"/libqdquick.so.1 "$libdir"/libqdplatform.so.1; do
  if readelf -d "$lib" | grep -Eq '\((RPATH|RUNPATH)\)'; then
    echo "$lib carries a library search path" >&2; exit 1
  fi
done
for prog in qdquickd qdquick-cli; do
  env -u LD_LIBRARY_PATH ${QDQ_EMULATOR:-} "$work/prefix/bin/$prog" --help > "$work/$prog.help" 2>&1 \
    || { cat "$work/$prog.help" >&2; echo "$prog --help failed from its prefix" >&2; exit 1; }
  grep -qi "usage" "$work/$prog.help" || { cat "$work/$prog.help" >&2; exit 1; }
done
mkdir -p "$work/root/var"
QDQUICK_ROOT="$work/root" LD_LIBRARY_PATH="$libdir" ${QDQ_EMULATOR:-} "$work/c_host"
grep -q "c host says 42" "$work/root/var/shrcadlog.txt"
