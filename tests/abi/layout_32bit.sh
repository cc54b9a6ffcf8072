#!/bin/sh
# The record layouts on a 32-bit target, with whichever 32-bit C compiler
# this machine has: the mipsel cross compiler (the gateway's own ABI), else
# the host compiler with -m32 (gcc-multilib; it conflicts with the cross
# compiler in Debian). Skipped (77) when there is neither.
#   layout_32bit.sh <include dir> <layout_ilp32.c>
set -u
flags="-std=c99 -pedantic -Wall -Wextra -Werror -fsyntax-only -I$1"
if command -v mipsel-linux-gnu-gcc >/dev/null 2>&1; then
  exec mipsel-linux-gnu-gcc $flags "$2"
fi
if echo 'int main(void){return 0;}' | ${CC:-cc} -m32 -x c - -o /dev/null 2>/dev/null; then
  exec ${CC:-cc} -m32 $flags "$2"
fi
echo "no 32-bit C compiler on this machine"
exit 77
