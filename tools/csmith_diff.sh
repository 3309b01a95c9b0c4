#!/bin/bash
# Differential testing with random C programs: each program from csmith is
# compiled by ifcc, run by ifrun, optimized by opt5 at every level and run
# again.  A different output or exit status, or an abnormal end of ifcc or
# opt5, is a failure; the program is kept (and reduced with --reduce).
# Programs that run past the step limit are skipped, and so are those whose
# run stops on undefined behaviour (a float converted to an integer it does
# not fit, say): the optimizer may change what such a program does.
#
#   tools/csmith_diff.sh [--bin DIR] [--seed N] [--count M] [--levels "0 1 2 3"]
#                        [--keep DIR] [--reduce] [--steps N] [--check FILE.c]
#                        [--check-dir DIR] [--float]
#
# --float lets csmith write float variables and arithmetic too.
# --check runs the same comparison on one C file (a kept or reduced program);
# the exit status is 0 when every level agrees.  --check-dir checks every
# C file of a directory (the regression programs of tests/csmith).
set -u
BIN=build
SEED=1
COUNT=20
LEVELS="0 1 2 3"
KEEP=csmith-failures
REDUCE=0
STEPS=20000000
CHECK=""
CHECK_DIR=""
OPT5_TIMEOUT=${OPT5_TIMEOUT:-120}  # seconds for one opt5 run
FLOAT=""
while [ $# -gt 0 ]; do
    case "$1" in
    --bin) BIN=$2; shift ;;
    --seed) SEED=$2; shift ;;
    --count) COUNT=$2; shift ;;
    --levels) LEVELS=$2; shift ;;
    --keep) KEEP=$2; shift ;;
    --reduce) REDUCE=1 ;;
    --steps) STEPS=$2; shift ;;
    --check) CHECK=$2; shift ;;
    --check-dir) CHECK_DIR=$2; shift ;;
    --float) FLOAT=--float ;;
    *) echo "unknown argument $1" >&2; exit 2 ;;
    esac
    shift
done
BIN=$(cd "$BIN" && pwd)

# Compares one C file at every level; prints the first difference and
# returns 1, or returns 0 (agreement), 3 (skipped: too long), 4 (skipped:
# the run stops on undefined behaviour) or 5 (skipped: an object too large
# for ifcc).
check() {
    local c=$1 w
    w=$(mktemp -d)
    if ! "$BIN/ifcc" "$c" -o "$w/p.if" 2>"$w/ifcc.err"; then
        if grep -q "error: array is too large" "$w/ifcc.err"; then
            # Clang's checks for its 16-bit-int target limit an object to
            # 32767 of its bytes; ifcc cannot take such a program.
            echo "too large for ifcc: $(head -c 300 "$w/ifcc.err")"
            rm -rf "$w"
            return 5
        fi
        echo "ifcc failed: $(head -c 300 "$w/ifcc.err")"
        rm -rf "$w"
        return 1
    fi
    timeout 120 "$BIN/ifrun" --steps "$STEPS" "$w/p.if" >"$w/ref.out" 2>"$w/ref.err"
    local ref_rc=$?
    if grep -q "step limit" "$w/ref.err" || [ $ref_rc -ge 124 ]; then
        rm -rf "$w"
        return 3
    fi
    if [ $ref_rc -ne 0 ] && grep -q "^ifrun: " "$w/ref.err"; then
        echo "undefined behaviour: $(head -c 300 "$w/ref.err")"
        rm -rf "$w"
        return 4
    fi
    for l in $LEVELS; do
        if ! timeout "$OPT5_TIMEOUT" "$BIN/opt5" -o$l "$w/p.if" "$w/o$l.if" >"$w/opt5.out" 2>&1; then
            echo "opt5 -o$l failed: $(head -c 300 "$w/opt5.out")"
            rm -rf "$w"
            return 1
        fi
        timeout 120 "$BIN/ifrun" --steps $((STEPS * 2)) "$w/o$l.if" >"$w/o$l.out" 2>"$w/o$l.err"
        local rc=$?
        if [ $rc -ne $ref_rc ] || ! cmp -s "$w/ref.out" "$w/o$l.out"; then
            echo "-o$l differs: exit $ref_rc -> $rc; output $(tail -c 120 "$w/ref.out" | tr '\n' ' ')-> $(tail -c 120 "$w/o$l.out" | tr '\n' ' ') $(head -c 200 "$w/o$l.err")"
            rm -rf "$w"
            return 1
        fi
    done
    rm -rf "$w"
    return 0
}

if [ -n "$CHECK" ]; then
    check "$CHECK"
    exit $?
fi
if [ -n "$CHECK_DIR" ]; then
    bad=0 n=0
    for c in "$CHECK_DIR"/*.c; do
        [ -e "$c" ] || continue
        n=$((n + 1))
        msg=$(check "$c")
        rc=$?
        [ $rc -eq 1 ] && { echo "$c: $msg"; bad=$((bad + 1)); }
        [ $rc -eq 3 ] && { echo "$c: runs past the step limit"; bad=$((bad + 1)); }
        [ $rc -ge 4 ] && { echo "$c: $msg"; bad=$((bad + 1)); }
    done
    echo "$n programs, $bad failed"
    [ $bad -eq 0 ]
    exit $?
fi

command -v csmith >/dev/null || { echo "csmith is not installed" >&2; exit 2; }
fail=0 pass=0 skip=0 undefined=0 large=0
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
for ((s = SEED; s < SEED + COUNT; s++)); do
    "$(dirname "$0")/csmith_gen.sh" $s "$work/p$s.c" $FLOAT || { echo "seed $s: csmith failed"; continue; }
    msg=$(check "$work/p$s.c")
    case $? in
    0) pass=$((pass + 1)) ;;
    3) skip=$((skip + 1)) ;;
    4) undefined=$((undefined + 1)) ;;
    5) large=$((large + 1)) ;;
    *)
        fail=$((fail + 1))
        echo "seed $s: $msg"
        mkdir -p "$KEEP"
        cp "$work/p$s.c" "$KEEP/seed$s.c"
        if [ $REDUCE -eq 1 ] && command -v creduce >/dev/null; then
            r=$(mktemp -d)
            cp "$work/p$s.c" "$r/seed$s.c"
            kind=$(echo "$msg" | cut -d: -f1 | cut -c1-14)
            cat >"$r/test.sh" <<TEST
#!/bin/bash
out=\$("$0" --bin "$BIN" --levels "$LEVELS" --steps $STEPS --check seed$s.c)
[ \$? -eq 1 ] && [ "\$(echo "\$out" | cut -d: -f1 | cut -c1-14)" = "$kind" ]
TEST
            chmod +x "$r/test.sh"
            (cd "$r" && timeout 1800 creduce --n 2 ./test.sh "seed$s.c" >/dev/null 2>&1)
            cp "$r/seed$s.c" "$KEEP/seed$s.reduced.c"
            echo "seed $s: reduced to $(wc -l <"$KEEP/seed$s.reduced.c") lines in $KEEP/seed$s.reduced.c"
            rm -rf "$r"
        fi
        ;;
    esac
done
echo "csmith: $pass agree, $fail failed, $skip skipped (too long), $undefined skipped (undefined behaviour), $large skipped (too large for ifcc)"
[ $fail -eq 0 ]
