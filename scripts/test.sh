#!/bin/sh
# The whole test suite: installs what is needed, builds twice (plainly and
# with AddressSanitizer + UndefinedBehaviorSanitizer) and runs every test,
# then cross-builds for mipsel and runs the tests under qemu-mipsel
# (QDQUICK_SKIP_CROSS=1 leaves the cross part out).
set -eu
cd "$(dirname "$0")/.."
./scripts/deps.sh
jobs=$(nproc)
status=0
for variant in plain asan; do
  dir=build-test-$variant
  flags=""
  [ "$variant" = asan ] && flags="-DQDQUICK_SANITIZE=ON"
  cmake -S . -B "$dir" -DCMAKE_BUILD_TYPE=RelWithDebInfo $flags >/dev/null
  if ! cmake --build "$dir" -j "$jobs" > "$dir/build.log" 2>&1; then
    grep -E "error|Error" "$dir/build.log" | head -n 20
    echo "=== $variant build FAILED ==="
    status=1
    continue
  fi
  echo "=== $variant build: running tests ==="
  (cd "$dir" && ASAN_OPTIONS=detect_leaks=1:abort_on_error=1 UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1 \
     ctest -j "$jobs" --output-on-failure --timeout 600) > "$dir/ctest.log" 2>&1 || status=1
  grep -E "tests passed|tests failed|The following tests FAILED|^\s+[0-9]+ - |Total Test time|^(FAILED|ERROR) |Failure$" "$dir/ctest.log" || tail -n 20 "$dir/ctest.log"
done
if [ "${QDQUICK_SKIP_CROSS:-0}" != 1 ]; then
  echo "=== mipsel cross build: tests under qemu-mipsel ==="
  ./scripts/cross-mipsel.sh || status=1
fi
exit $status
