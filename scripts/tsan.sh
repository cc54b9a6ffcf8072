#!/bin/sh
# ThreadSanitizer run of the concurrency-heavy tests: builds build-tsan with
# QDQUICK_TSAN and runs each program whole (the ones that bind fixed ports
# in a private network namespace). Reports of deliberate lock-free sharing
# are suppressed by tsan.supp, each entry with its reason; any other report
# fails the run. Not part of CI (a TSan build of the suite takes minutes).
#   scripts/tsan.sh [PROGRAM...]
set -eu
cd "$(dirname "$0")/.."
dir=build-tsan
programs=${*:-"test_timer test_log test_exec test_transport test_dispatch_routes
  test_dispatch_orders test_local_udp test_local_tcp test_bad_input test_workers
  test_session"}
cmake -S . -B "$dir" -DQDQUICK_TSAN=ON -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
# shellcheck disable=SC2086
if ! cmake --build "$dir" -j "$(nproc)" --target $programs >"$dir/build.log" 2>&1; then
  grep -E "error" "$dir/build.log" | head -n 20
  exit 1
fi
export TSAN_OPTIONS="suppressions=$PWD/tsan.supp halt_on_error=0 second_deadlock_stack=1 exitcode=66"
export QDQUICK_TIME_SCALE=${QDQUICK_TIME_SCALE:-0.01}
status=0
for p in $programs; do
  case $p in
    test_local_udp|test_local_tcp|test_bad_input|test_dispatch_routes) run="./tests/support/in_netns.sh" ;;
    *) run="" ;;
  esac
  log="$dir/$p.tsan.log"
  if $run "$dir/tests/$p" >"$log" 2>&1; then
    echo "$p: clean"
  else
    status=1
    echo "$p: FAILED ($(grep -c 'WARNING: ThreadSanitizer' "$log") reports, see $log)"
  fi
done
exit $status
