#!/bin/sh
# Builds the reader fuzz target with clang's libFuzzer and runs it briefly on
# a corpus seeded with the test units.  Usage: run_fuzz.sh SOURCE BUILD SECONDS
set -eu
src=$1
build=$2
seconds=${3:-20}
cmake -S "$src" -B "$build" -G Ninja -DCMAKE_CXX_COMPILER=clang++ -DCMAKE_BUILD_TYPE=RelWithDebInfo \
    -DOPT5_TESTS=OFF -DOPT5_FUZZ=ON >/dev/null
cmake --build "$build" --target reader_fuzz ifas >/dev/null
corpus="$build/corpus"
mkdir -p "$corpus"
for t in "$src"/tests/data/*.txt; do
    "$build/ifas" "$t" "$corpus/$(basename "$t" .txt).if"
done
# A rejected input leaves its partial trees behind (the optimizer itself
# exits at that point), so leaks are not looked for.
ASAN_OPTIONS=detect_leaks=0 "$build/reader_fuzz" -max_total_time="$seconds" -detect_leaks=0 -print_final_stats=1 \
    -artifact_prefix="$build/" "$corpus" 2>"$build/fuzz.log" || {
    tail -40 "$build/fuzz.log"
    exit 1
}
grep -E "stat::number_of_executed_units" "$build/fuzz.log"
