#!/bin/sh
# Runs the end-to-end scenarios (pytest, arguments after the hosts file) in
# a private network namespace with only loopback up, so that nothing can
# leave the machine and fixed ports are free, and a private PID namespace
# with its own /proc, so that no process of another run is seen or
# signalled. There a private /etc/hosts (the first argument) names a
# platform with two loopback addresses.
# Without namespaces the scenarios run on the host's loopback and those
# that need the namespace are skipped.
hosts=$1
shift
if [ "$(id -u)" = 0 ]; then user=; else user=--map-root-user; fi
if command -v ip >/dev/null 2>&1 && unshare $user --net true 2>/dev/null; then
    if unshare $user --net --pid --fork --mount-proc true 2>/dev/null; then
        exec unshare $user --net --pid --fork --mount-proc sh -c '
            ip link set lo up || exit 1
            hosts=$1; shift
            mount --bind "$hosts" /etc/hosts 2>/dev/null && export QDQ_E2E_MULTI=multi.platform.test
            export QDQ_E2E_NETNS=1
            exec /usr/bin/python3 -m pytest "$@"' sh "$hosts" "$@"
    fi
    exec unshare $user --net sh -c 'ip link set lo up && QDQ_E2E_NETNS=1 exec /usr/bin/python3 -m pytest "$@"' sh "$@"
fi
echo "run.sh: no network namespace, using the host's loopback" >&2
exec /usr/bin/python3 -m pytest "$@"
