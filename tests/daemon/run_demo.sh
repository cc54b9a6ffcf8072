#!/bin/sh
# Runs the main job (scripts/demo.sh) on the tree built in $1, with its
# temporary root under $2 (the demo makes its own private network and PID
# namespaces).
set -eu
top=$(cd "$(dirname "$0")/../.." && pwd)
export QDQ_DEMO_BUILD="$1" TMPDIR="$2"
mkdir -p "$TMPDIR"
exec "$top/scripts/demo.sh"
