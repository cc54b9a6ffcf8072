#!/bin/sh
# The main job: installs what is needed, builds, and runs the demo host.
# QDQ_DEMO_BUILD=DIR runs it on a tree already built in DIR (the test of
# this script does).
set -eu
cd "$(dirname "$0")/.."
if [ -z "${QDQ_DEMO_INSIDE:-}" ] && [ -z "${QDQ_DEMO_BUILD:-}" ]; then
./scripts/deps.sh
cmake -S . -B build -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
cmake --build build -j "$(nproc)" >/dev/null
fi
build=${QDQ_DEMO_BUILD:-$(pwd)/build}
# From here: the simulator (operator side) and qdquickd (the gateway) on
# loopback, in private network and PID namespaces when possible so that the
# fixed ports (7998, 18401, 18998, 17401, 60001...) never meet anything
# else.
# Usage: scripts/demo.sh [--keep]   (--keep: stay up for exploration)
keep=0
for arg in "$@"; do
  case "$arg" in
    --keep) keep=1 ;;
    -h|--help) echo "usage: $0 [--keep]"; exit 0 ;;
    *) echo "usage: $0 [--keep]" >&2; exit 2 ;;
  esac
done
# A private PID namespace with its own /proc too: the daemon stops plugins
# it finds by process name, which must never reach a process of another
# run (or of anybody else) on this machine. --mount-proc makes a private
# mount namespace as well: as root the confined plugin's user is made in a
# private copy of /etc, never in this machine's accounts.
if [ -z "${QDQ_DEMO_INSIDE:-}" ] && unshare --net --pid --fork --mount-proc true 2>/dev/null; then
  export QDQ_DEMO_INSIDE=netns QDQ_DEMO_NS_PID=$$   # unshare keeps this pid, in the new network
  [ "$(id -u)" = 0 ] && export QDQ_DEMO_ETC=private
  exec unshare --net --pid --fork --mount-proc sh -c 'ip link set lo up && exec "$0" "$@"' "$0" "$@"
fi
export QDQ_DEMO_INSIDE="${QDQ_DEMO_INSIDE:-host}"
if [ "${QDQ_DEMO_ETC:-}" = private ]; then
  mount --make-rprivate / && etc=$(mktemp -d) && mount -t tmpfs -o mode=0755 qdq-etc "$etc" &&
    cp -a /etc/. "$etc/" && mount --bind "$etc" /etc && umount -l "$etc" && rmdir "$etc" || QDQ_DEMO_ETC=
fi

scale=${QDQUICK_TIME_SCALE:-0.1}   # platform intervals of 60 s pass in 6 s
export QDQUICK_TIME_SCALE=$scale
root=$(mktemp -d "${TMPDIR:-/tmp}/qdquick-demo.XXXXXX")
mkdir -p "$root/etc"
sed -e "s|\"root\": \"\"|\"root\": \"$root\"|" -e 's|"retry_seconds": 30|"retry_seconds": 10|' \
    daemon/qdquickd.json > "$root/etc/qdquickd.json"

say() { printf '%s demo: %s\n' "$(date +%H:%M:%S)" "$*"; }
sim_pid= daemon_pid= daemon_status=0
stop_all() {
  trap - EXIT INT TERM
  if [ -n "$daemon_pid" ] && kill -0 "$daemon_pid" 2>/dev/null; then
    say "stopping qdquickd (SIGTERM)"
    kill -TERM "$daemon_pid"
    wait "$daemon_pid" || daemon_status=$?
    say "qdquickd exited with status $daemon_status"
  fi
  if [ -n "$sim_pid" ] && kill -0 "$sim_pid" 2>/dev/null; then
    kill -TERM "$sim_pid"; wait "$sim_pid" 2>/dev/null || true
  fi
  sleep 1   # the last lines reach the screen
  # (an exited process that nobody reaped yet shows as Z: it does not run)
  for p in sampleplugin confinedplugin; do
    if ps -C "$p" -o stat= 2>/dev/null | grep -qv Z; then say "WARNING: $p still runs"; fi
  done
  say "logs and state files are kept in $root"
}
trap stop_all EXIT
trap 'exit 130' INT TERM

# Waits up to $2 seconds for the extended regular expression $1 in a file $3.
wait_for() {
  i=0
  while ! grep -Eq "$1" "$3" 2>/dev/null; do
    i=$((i + 1)); [ "$i" -gt $(($2 * 10)) ] && return 1
    sleep 0.1
  done
}

say "root $root (network: $QDQ_DEMO_INSIDE, time scale $scale)"
: > "$root/sim.out"; : > "$root/daemon.out"
# Only the readable lines: the tools the library runs (wget, tar) also
# write to the daemon's output.
(tail -n +1 --pid=$$ -f "$root/sim.out" | grep --line-buffered ' sim: ') &
(tail -n +1 --pid=$$ -f "$root/daemon.out" | grep --line-buffered -E ' qdquickd: |^(sample|confined)plugin: ') &
/usr/bin/python3 sim/qdquick-sim --gateway --time-scale "$scale" --control-port 0 \
    --packages "$build/examples/sample-plugin/packages" --record "$root/sim-record.jsonl" \
    > "$root/sim.out" 2> "$root/sim.err" &
sim_pid=$!
wait_for '^qdquick-sim ready' 10 "$root/sim.out" || { say "the simulator did not start:"; cat "$root/sim.err"; exit 1; }
"$build/daemon/qdquickd" -c "$root/etc/qdquickd.json" > "$root/daemon.out" 2>&1 &
daemon_pid=$!

ok=1
wait_for 'plugin .* is running' 60 "$root/daemon.out" || { say "the sample plugin did not come up"; ok=0; }
wait_for 'manage platform: heartbeat received' 30 "$root/sim.out" || ok=0
wait_for 'plugin platform: heartbeat answered' 30 "$root/daemon.out" || ok=0

# The plugin platform orders the confined sample (Right: user) beside the
# privileged one, through the simulator's control port. Only with a private
# /etc: its user is never made in this machine's accounts.
if [ "${QDQ_DEMO_ETC:-}" = private ]; then
  ctl=$(sed -n 's/^qdquick-sim ready .*control=127\.0\.0\.1:\([0-9]*\).*/\1/p' "$root/sim.out")
  pkg=$(sed -n 's/^qdquick-sim gateway packages=\([^ ]*\) .*/\1/p' "$root/sim.out")
  /usr/bin/python3 - "$ctl" "$pkg" > "$root/control.out" 2>&1 <<'EOF' || say "the confined install could not be ordered"
import json, socket, sys
order = {"RPCMethod": "Install", "ID": "install-2", "Plugin_Name": "com.qdquick.example.confined", "Version": "1.0",
         "Download_url": f"http://{sys.argv[2]}/confined-1.0.cpk", "OS": 0, "upgrade_ID": "upgrade-2"}
with socket.create_connection(("127.0.0.1", int(sys.argv[1])), timeout=10) as s:
    s.sendall((json.dumps({"cmd": "push", "platform": "plugin", "message": order}) + "\n").encode())
    print(s.makefile().readline().strip())
EOF
  if wait_for 'plugin com.qdquick.example.confined .* is running' 60 "$root/daemon.out"; then
    pid=$(sed -n 's/.*confined 1.0 is running: confinedplugin, pid \([0-9]*\).*/\1/p' "$root/daemon.out" | tail -n 1)
    uid=$(awk '/^Uid:/ {print $2}' "/proc/$pid/status")
    as=$(awk '/^Max address space/ {print $4}' "/proc/$pid/limits")
    files=$(awk '/^Max open files/ {print $4}' "/proc/$pid/limits")
    limiter=none; pgrep -f "cpulimit -p $pid " >/dev/null 2>&1 && limiter="cpulimit -p $pid"
    say "confined plugin: pid $pid, uid $uid ($(id -nu "$uid" 2>/dev/null)), address space $as bytes, open files $files, CPU limiter: $limiter"
    case "$uid" in 0|"") ok=0 ;; esac
  else
    say "the confined plugin did not come up"; ok=0
  fi
else
  say "the confined plugin is shown only as root with a private mount namespace (its user is made in a private /etc)"
fi

# A local program asks the gateway for its plugins on the local TCP port.
cli=$build/tools/cli/qdquick-cli
answer=$("$cli" --tcp --raw '{"RPCMethod":"ListPlugin","ID":"demo-1"}' 2>&1) || answer="(no answer: $answer)"
answer=$(printf '%s' "$answer" | tr -d '\n\t')   # one line on the screen
say "local ListPlugin answered: $answer"
case "$answer" in *sample*) ;; *) ok=0 ;; esac

if [ "$keep" = 1 ]; then
  # Inside the demo's namespaces the pids and ports are its own: enter them
  # (the demo's shell is the only child of the unshare that made them).
  pfx=""; [ "$QDQ_DEMO_INSIDE" = netns ] && pfx="nsenter -a -t \$(pgrep -P $QDQ_DEMO_NS_PID) "
  cat <<EOT

The gateway keeps running. From another terminal try:
  ${pfx}$cli status --root $root
  ${pfx}$cli --tcp '{"RPCMethod":"ListPlugin","ID":"1"}'
  ${pfx}$cli --quick '{"Cmd":"Discover"}'
  ${pfx}$cli --udp '{"RPCMethod":"Post","Parameter":"eyJDbWRUeXBlIjoiR2V0UGxhdGZvcm1TdGF0dXMifQ=="}'
  tail -f $root/var/shrcadlog.txt                # the library's log
  tail -f $root/var/qdquickd.log                 # the daemon's log
  cat $root/qdconf/CPlugin/sample/Data/ticks     # the sample plugin counts here
  grep -E 'Uid|Max' /proc/\$(pgrep -x confinedplugin)/status /proc/\$(pgrep -x confinedplugin)/limits
Press Ctrl-C to stop everything.
EOT
  wait "$daemon_pid" || true
  exit 0
fi
sleep 1
if [ "$ok" = 1 ]; then say "all shown: registrations, heartbeats, installs, plugins running (one confined), local answer"; else say "something was missing (see $root)"; fi
stop_all
[ "$ok" = 1 ] && [ "$daemon_status" = 0 ]
