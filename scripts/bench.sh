#!/bin/sh
# The benchmark table in one command: builds with release flags (-O2, no
# sanitizers) into build-bench/ and runs qdquick-bench in a private network
# namespace (it binds the fixed ports 18401 and 18998).
#   scripts/bench.sh            full run (0.5 s windows, medians of 9, 60 idle s)
#   scripts/bench.sh --quick    short run (about a minute)
# Other arguments go to qdquick-bench (--rows 1,3,4 ...).
set -eu
cd "$(dirname "$0")/.."
# The native build needs only the build dependencies; deps.sh (which also
# installs the mipsel cross compiler) runs only when one of them is missing.
if ! { command -v cmake && command -v g++ && [ -f /usr/include/cjson/cJSON.h ] &&
       [ -f /usr/include/openssl/evp.h ]; } >/dev/null 2>&1; then
  ./scripts/deps.sh
fi
dir=build-bench
cmake -S . -B "$dir" -DCMAKE_BUILD_TYPE=RelWithDebInfo -DQDQUICK_SANITIZE=OFF -DQDQUICK_BUILD_TESTS=OFF \
  -DQDQUICK_BENCH=ON >/dev/null
if ! cmake --build "$dir" -j "$(nproc)" >"$dir/build.log" 2>&1; then
  tail -n 30 "$dir/build.log"
  exit 1
fi
exec tests/support/in_netns.sh "$dir/bench/qdquick-bench" "$@"
