#!/bin/sh
# Runs the daemon's end-to-end tests in a private network namespace (the
# gateway's ports are fixed, and nothing may leave loopback) and a private
# PID namespace with its own /proc: plugins are looked up, and stopped by
# the daemon, by process name, which must never reach another run's
# process. Exit 77 (skip) where such namespaces are not allowed.
set -eu
if [ "$(id -u)" = 0 ]; then user=""; else user="--map-root-user"; fi
ns="$user --net --pid --fork --mount-proc"
# shellcheck disable=SC2086
if ! unshare $ns true 2>/dev/null; then
  echo "no private network and PID namespaces available: skipped"
  exit 77
fi
# shellcheck disable=SC2086
exec unshare $ns sh -c 'ip link set lo up && exec /usr/bin/python3 -m pytest "$@"' sh "$@"
