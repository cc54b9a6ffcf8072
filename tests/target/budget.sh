#!/bin/sh
# The flash budget of a router build: the stripped library stays under the
# limit. strip is the target's (the cross build passes its own).
#   budget.sh <strip> <library> <limit in KiB>
set -eu
work=$(mktemp /tmp/qdquick-budget-XXXXXX)
trap 'rm -f "$work"' EXIT
"$1" --strip-all -o "$work" "$2"
size=$(stat -c %s "$work")
echo "$(basename "$2") stripped: $size bytes, budget $3 KiB"
[ "$size" -lt $(($3 * 1024)) ]
