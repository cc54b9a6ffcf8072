#!/bin/sh
# Builds the sample plugin's package OUTDIR/sample-1.0.cpk: a gzip tar of
# Info.plugin and MyPlugin/sampleplugin, the layout the gateway unpacks.
#   package.sh OUTDIR [PLUGIN_BINARY]
# Without PLUGIN_BINARY the program is compiled from sample_plugin.c with
# $CC (default cc); give a cross-compiled binary to package for a router.
set -eu
here=$(cd "$(dirname "$0")" && pwd)
out=${1:?usage: package.sh OUTDIR [PLUGIN_BINARY]}
stage=$(mktemp -d)
trap 'rm -rf "$stage"' EXIT
mkdir -p "$stage/MyPlugin" "$out"
cp "$here/Info.plugin" "$stage/Info.plugin"
if [ $# -ge 2 ]; then
  cp "$2" "$stage/MyPlugin/sampleplugin"
else
  ${CC:-cc} -O2 -o "$stage/MyPlugin/sampleplugin" "$here/sample_plugin.c"
fi
chmod 755 "$stage/MyPlugin/sampleplugin"
tar -czf "$out/sample-1.0.cpk" -C "$stage" Info.plugin MyPlugin
