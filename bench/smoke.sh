#!/bin/sh
# CTest smoke run: qdquick-bench --quick in a private network namespace must
# succeed and print a figure for every row of the table.
set -u
out=$("$(dirname "$0")/../tests/support/in_netns.sh" "$@" --quick 2>&1)
status=$?
echo "$out"
[ $status -eq 0 ] || { echo "qdquick-bench exited with $status"; exit 1; }
for row in 1 2 3 4 5; do
  echo "$out" | grep -q "^| $row | " || { echo "row $row missing"; exit 1; }
done
