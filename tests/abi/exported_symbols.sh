#!/bin/sh
# The dynamic symbol table of a library holds only names that its public
# header declares with QDQ_API: the ABI and nothing internal. Declared names
# that the build does not define yet are listed, not failed.
set -eu
lib=$1
header=$2
work=$(mktemp -d /tmp/qdquick-nm-XXXXXX)
trap 'rm -rf "$work"' EXIT
nm -D --defined-only "$lib" | awk '$2 ~ /^[TDBRVW]$/ {print $3}' | sed 's/@.*//' | sort -u > "$work/exported"
# Names declared with QDQ_API: the identifier before '(' or '[' or ';'.
tr '\n' ' ' < "$header" | sed 's/QDQ_API/\nQDQ_API/g' | grep '^QDQ_API' \
  | sed -E 's/^QDQ_API[^(;\[]*[^A-Za-z0-9_(;\[]([A-Za-z_][A-Za-z0-9_]*)[[:space:]]*[(;\[].*/\1/' \
  | sort -u > "$work/declared"
leaked=$(comm -13 "$work/declared" "$work/exported")
if [ -n "$leaked" ]; then
  echo "exported by $lib but not declared in $header:" >&2
  echo "$leaked" >&2
  exit 1
fi
missing=$(comm -23 "$work/declared" "$work/exported" | tr '\n' ' ')
echo "$(wc -l < "$work/exported") symbols exported, all declared"
[ -z "$missing" ] || echo "declared, not defined in this build: $missing"
