#!/bin/sh
# Runs the main job (scripts/demo.sh) on the tree built in $1, with its
# temporary root under $2, in a private PID namespace where allowed: the
# demo's last check looks for its plugins by process name, and must not see
# a plugin of another test running beside it.
set -eu
top=$(cd "$(dirname "$0")/../.." && pwd)
export QDQ_DEMO_BUILD="$1" TMPDIR="$2"
mkdir -p "$TMPDIR"
if unshare --pid --fork --mount-proc true 2>/dev/null; then
  exec unshare --pid --fork --mount-proc "$top/scripts/demo.sh"
fi
exec "$top/scripts/demo.sh"
