#!/bin/sh
# Runs a test program as root in private mount and PID namespaces, with a
# private copy of /etc on a tmpfs: the plugin users it creates with the real
# useradd/adduser never reach this machine's account files, and its /proc
# shows only its own processes. Where that cannot be made, the program runs
# as it is and its confinement tests skip (QDQ_PRIVATE_ETC stays unset).
if [ "$(id -u)" = 0 ] && unshare --mount --pid --fork true 2>/dev/null; then
  exec unshare --mount --pid --fork --mount-proc sh -c '
    set -e
    mount --make-rprivate /
    etc=$(mktemp -d)
    mount -t tmpfs -o mode=0755 qdq-etc "$etc"
    cp -a /etc/. "$etc/"
    mount --bind "$etc" /etc
    umount -l "$etc" && rmdir "$etc"
    QDQ_PRIVATE_ETC=1 exec "$@"' sh "$@"
fi
echo "in_private_etc.sh: no private mount namespace here" >&2
exec "$@"
