#!/bin/sh
# The benchmark table in one command: builds with release flags (-O2, no
# sanitizers) into build-bench/ and runs qdquick-bench in a private network
# namespace (it binds the fixed ports 18401 and 18998).
#   scripts/bench.sh            full run (0.5 s windows, medians of 9, 60 idle s)
#   scripts/bench.sh --quick    short run (about a minute)
# Other arguments go to qdquick-bench (--rows 1,3,4 ...).
set -eu
cd "$(dirname "$0")/.."
./scripts/deps.sh   # idempotent: asks apt for nothing once all is there
dir=build-bench
cmake -S . -B "$dir" -DCMAKE_BUILD_TYPE=RelWithDebInfo -DQDQUICK_SANITIZE=OFF -DQDQUICK_BUILD_TESTS=OFF \
  -DQDQUICK_BENCH=ON >/dev/null
if ! cmake --build "$dir" -j "$(nproc)" >"$dir/build.log" 2>&1; then
  tail -n 30 "$dir/build.log"
  exit 1
fi
exec tests/support/in_netns.sh "$dir/bench/qdquick-bench" "$@"
