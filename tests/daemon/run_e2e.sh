#!/bin/sh
# Runs the daemon's end-to-end tests in a private network namespace (the
# gateway's ports are fixed, and nothing may leave loopback) and, where
# allowed, a private PID namespace with its own /proc (the plugin's process
# is looked up by name: another run's plugin must not be seen). Exit 77
# (skip) where network namespaces are not allowed.
set -eu
if ! unshare --net true 2>/dev/null; then
  echo "no private network namespace available: skipped"
  exit 77
fi
pid_ns=""
if unshare --pid --fork --mount-proc true 2>/dev/null; then
  pid_ns="--pid --fork --mount-proc"
fi
# shellcheck disable=SC2086
exec unshare --net $pid_ns sh -c 'ip link set lo up && exec /usr/bin/python3 -m pytest "$@"' sh "$@"
