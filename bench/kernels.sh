#!/bin/bash
# Executed operations per optimization level: each kernel of samples/kernels
# (and, with --csmith N, csmith programs of seeds 1..N) is compiled by ifcc,
# optimized by opt5 at every level and run by ifrun --stats.  Prints a
# Markdown table of the operations, each level's ratio to -o0 and the
# geometric mean of the ratios; a run whose output differs from the
# unoptimized one is marked.  With --memory the table counts the accesses
# of memory (globals, and locals kept in memory) instead.
#   bench/kernels.sh [--bin DIR] [--levels "0 1 2 3"] [--csmith N] [--memory]
set -eu
BIN=build
LEVELS="0 1 2 3"
CSMITH=0
MEASURE=operations
while [ $# -gt 0 ]; do
    case "$1" in
    --bin) BIN=$2; shift ;;
    --levels) LEVELS=$2; shift ;;
    --csmith) CSMITH=$2; shift ;;
    --memory) MEASURE="memory accesses" ;;
    *) echo "usage: $0 [--bin DIR] [--levels \"0 1 2 3\"] [--csmith N] [--memory]" >&2; exit 2 ;;
    esac
    shift
done
ROOT=$(cd "$(dirname "$0")/.." && pwd)
BIN=$(cd "$BIN" && pwd)
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

programs=()
for c in "$ROOT"/samples/kernels/*.c; do programs+=("$c"); done
for ((s = 1; s <= CSMITH; s++)); do
    "$ROOT/tools/csmith_gen.sh" $s "$work/csmith$s.c" && programs+=("$work/csmith$s.c")
done

ops() {  # the measure of a run, or "-" when it stops or differs
    local unit=$1 ref=$2
    if ! timeout 120 "$BIN/ifrun" --stats --steps 20000000 "$unit" >"$work/run.out" 2>"$work/run.err"; then
        grep -q "^ifrun: " "$work/run.err" && { echo "-"; return; }
    fi
    if [ -n "$ref" ] && ! cmp -s "$work/run.out" "$ref"; then echo "DIFFERS"; return; fi
    grep "^$MEASURE:" "$work/run.err" | awk '{print $NF}'
}

header="| program |"
rule="|---|"
for l in $LEVELS; do header+=" -o$l |"; rule+="---|"; done
for l in $LEVELS; do [ "$l" != 0 ] && { header+=" -o$l/-o0 |"; rule+="---|"; }; done
echo "$header"
echo "$rule"
declare -A logsum count
for c in "${programs[@]}"; do
    name=$(basename "$c" .c)
    "$BIN/ifcc" "$c" -o "$work/$name.if" 2>/dev/null || continue
    timeout 120 "$BIN/ifrun" "$work/$name.if" >"$work/ref.out" 2>/dev/null || true
    row="| $name |"
    declare -A n=()
    for l in $LEVELS; do
        "$BIN/opt5" -o$l "$work/$name.if" "$work/$name.o$l.if"
        n[$l]=$(ops "$work/$name.o$l.if" "$work/ref.out")
        row+=" ${n[$l]} |"
    done
    [ "${n[0]:--}" = "-" ] && continue  # no oracle: the program stops on its own
    for l in $LEVELS; do
        [ "$l" = 0 ] && continue
        case "${n[$l]}" in
        -|DIFFERS) row+=" ${n[$l]} |" ;;
        *)
            r=$(awk -v a="${n[$l]}" -v b="${n[0]}" 'BEGIN { printf "%.3f", a / b }')
            row+=" $r |"
            logsum[$l]=$(awk -v s="${logsum[$l]:-0}" -v r="$r" 'BEGIN { printf "%.6f", s + log(r) }')
            count[$l]=$(( ${count[$l]:-0} + 1 ))
            ;;
        esac
    done
    echo "$row"
done
row="| geometric mean |"
for l in $LEVELS; do row+=" |"; done
for l in $LEVELS; do
    [ "$l" = 0 ] && continue
    row+=" $(awk -v s="${logsum[$l]:-0}" -v n="${count[$l]:-1}" 'BEGIN { printf "%.3f", exp(s / n) }') |"
done
echo "$row"
