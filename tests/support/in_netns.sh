#!/bin/sh
# Runs a test program in a private network namespace with loopback up, so
# that tests binding fixed ports (18401, 7998) collide neither with each
# other (CTest runs test cases in parallel) nor with services of this
# machine, and their firewall commands touch only the namespace. Runs the
# program directly when no namespace can be made.
if [ "$(id -u)" = 0 ]; then opts="--net"; else opts="--net --map-root-user"; fi
if command -v ip >/dev/null 2>&1 && unshare $opts true 2>/dev/null; then
    exec unshare $opts sh -c 'ip link set lo up && exec "$@"' sh "$@"
fi
echo "in_netns.sh: no private network namespace, running in the host's" >&2
exec "$@"
