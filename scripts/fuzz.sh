#!/bin/sh
# Fuzzing: builds the libFuzzer targets (clang-14, AddressSanitizer and
# UndefinedBehaviorSanitizer) and runs every target - or those named - for
# SECONDS seconds each, one after the other, each in a private network
# namespace. Prints the executions of each target. A finding stops its
# target; the input is left in fuzz/findings/<target>/ (minimise it with
# -minimize_crash=1, fix the library, then add it to fuzz/corpus/<target>/,
# where the replay tests run it for ever after).
#   scripts/fuzz.sh SECONDS [TARGET...]
set -eu
secs=${1:?usage: scripts/fuzz.sh SECONDS [TARGET...]}
shift
cd "$(dirname "$0")/.."
dir=build-fuzz
CC=clang-14 CXX=clang++-14 cmake -S . -B "$dir" -DQDQUICK_FUZZ=ON -DQDQUICK_BUILD_TESTS=OFF \
  -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
if ! cmake --build "$dir" -j "$(nproc)" >"$dir/build.log" 2>&1; then
  grep -E "error" "$dir/build.log" | head -n 20
  exit 1
fi
targets=${*:-$(ls fuzz/corpus)}
status=0
for t in $targets; do
  # Frames reach past the 100 KiB limit; ability parameters reach theirs.
  case $t in
    frame) len=110000 ;;
    ability|dispatch) len=16384 ;;
    *) len=4096 ;;
  esac
  work="$dir/work/$t"
  mkdir -p "$work" "fuzz/findings/$t"
  log="$dir/work/$t.log"
  rc=0
  ./tests/support/in_netns.sh "$dir/fuzz/fuzz_$t" -max_total_time="$secs" -max_len="$len" -timeout=20 \
    -print_final_stats=1 -artifact_prefix="fuzz/findings/$t/" "$work" "fuzz/corpus/$t" >"$log" 2>&1 || rc=$?
  execs=$(sed -n 's/^stat::number_of_executed_units: *//p' "$log" | tail -n 1)
  if [ "$rc" = 0 ]; then
    verdict="no finding"
  else
    verdict="FINDING (see $log)"
    status=1
  fi
  printf '%-14s %12s executions in %ss: %s\n' "$t" "${execs:-?}" "$secs" "$verdict"
done
exit $status
