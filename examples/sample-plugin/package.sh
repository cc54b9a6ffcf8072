#!/bin/sh
# Builds the sample plugin's packages, the layout the gateway unpacks:
#   OUTDIR/sample-1.0.cpk    Info.plugin and MyPlugin/sampleplugin
#                            (Right: admin, runs unlimited)
#   OUTDIR/confined-1.0.cpk  Info-confined.plugin and MyPlugin/confinedplugin,
#                            the same program (Right: user: its own user,
#                            64 MiB of address space, 32 open files, 10 % CPU)
#   package.sh OUTDIR [PLUGIN_BINARY]
# Without PLUGIN_BINARY the program is compiled from sample_plugin.c with
# $CC (default cc); give a cross-compiled binary to package for a router.
set -eu
here=$(cd "$(dirname "$0")" && pwd)
out=${1:?usage: package.sh OUTDIR [PLUGIN_BINARY]}
stage=$(mktemp -d)
trap 'rm -rf "$stage"' EXIT
mkdir -p "$stage/bin" "$out"
if [ $# -ge 2 ]; then
  cp "$2" "$stage/bin/plugin"
else
  ${CC:-cc} -O2 -o "$stage/bin/plugin" "$here/sample_plugin.c"
fi
# package NAME DESCRIPTOR PROGRAM
package() {
  rm -rf "$stage/$1" && mkdir -p "$stage/$1/MyPlugin"
  cp "$here/$2" "$stage/$1/Info.plugin"
  cp "$stage/bin/plugin" "$stage/$1/MyPlugin/$3"
  chmod 755 "$stage/$1/MyPlugin/$3"
  tar -czf "$out/$1-1.0.cpk" -C "$stage/$1" Info.plugin MyPlugin
}
package sample Info.plugin sampleplugin
package confined Info-confined.plugin confinedplugin
