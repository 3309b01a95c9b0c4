#!/bin/bash
# The whole chain on one C file: ifcc, opt5 at a level, and ifrun of the unit
# before and after, with their outputs and operation counts.
#   tools/chain.sh [--bin DIR] [--level N] file.c
set -eu
BIN=build
LEVEL=2
while [ $# -gt 1 ]; do
    case "$1" in
    --bin) BIN=$2; shift 2 ;;
    --level) LEVEL=$2; shift 2 ;;
    *) echo "usage: $0 [--bin DIR] [--level N] file.c" >&2; exit 2 ;;
    esac
done
c=$1
name=$(basename "$c" .c)
out=$BIN/chain
mkdir -p "$out"
"$BIN/ifcc" "$c" -o "$out/$name.if"
"$BIN/opt5" -o$LEVEL "$out/$name.if" "$out/$name.o$LEVEL.if"
"$BIN/ifrun" --stats "$out/$name.if" >"$out/$name.out" 2>"$out/$name.stats"
"$BIN/ifrun" --stats "$out/$name.o$LEVEL.if" >"$out/$name.o$LEVEL.out" 2>"$out/$name.o$LEVEL.stats"
echo "== output of $name (before opt5)"
cat "$out/$name.out"
if cmp -s "$out/$name.out" "$out/$name.o$LEVEL.out"; then
    echo "== the same after opt5 -o$LEVEL"
else
    echo "== DIFFERENT after opt5 -o$LEVEL:"
    cat "$out/$name.o$LEVEL.out"
    exit 1
fi
before=$(grep '^operations' "$out/$name.stats" | awk '{print $2}')
after=$(grep '^operations' "$out/$name.o$LEVEL.stats" | awk '{print $2}')
echo "== operations executed: $before before, $after after opt5 -o$LEVEL"
