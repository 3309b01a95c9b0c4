#!/bin/bash
# One csmith program in ifcc's data model:
#   tools/csmith_gen.sh SEED OUT.c [--float]
# csmith runs in OUT's directory (it writes platform.info there), without
# 8-bit types or packed structs.  Its bit-fields are up to 32 bits wide in an
# int or unsigned, which are 16 bits here: the wider ones are made long.
set -eu
seed=$1
out=$2
opts="--no-int8 --no-uint8 --no-packed-struct --max-funcs 6"
[ "${3:-}" = "--float" ] && opts="$opts --float"
dir=$(dirname "$out")
name=$(basename "$out")
(cd "$dir" && csmith --seed "$seed" $opts -o "$name" >/dev/null 2>&1)
perl -pi -e 's/\b(signed|unsigned)(\s+f\d+\s*:\s*)(\d+);/$3 > 16 ? "$1 long$2$3;" : "$1$2$3;"/ge' "$out"
