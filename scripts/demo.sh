#!/bin/sh
# The main job: installs what is needed, builds, and runs the demo host.
set -eu
cd "$(dirname "$0")/.."
./scripts/deps.sh
cmake -S . -B build -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
cmake --build build -j "$(nproc)" >/dev/null
root=$(pwd)/build/demo-root
rm -rf "$root" && mkdir -p "$root/var" "$root/qdconf" "$root/etc/config/system"
QDQUICK_ROOT="$root" ./build/examples/qdquick-demo
