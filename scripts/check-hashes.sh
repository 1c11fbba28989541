#!/usr/bin/env bash
# Demands the same hits, bit for bit, of every compiler that is installed, of one and of two threads
# that ask, of packed and plain leaves, and of the code for every kind of processor.
#   scripts/check-hashes.sh [--counts 20000] [--rays 16384]    or other options of kelpa_bench
set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")/.."
hashes=$(mktemp)
trap 'rm -f "$hashes"' EXIT
for compiler in g++ clang++; do
    command -v "$compiler" >/dev/null || { echo "$compiler is not installed, left out"; continue; }
    build=build/hashes-$compiler
    cmake -S . -B "$build" -DCMAKE_BUILD_TYPE=RelWithDebInfo -DCMAKE_CXX_COMPILER="$compiler" \
        -DBUILD_TESTING=OFF -DKELPA_TOOL=OFF >/dev/null
    cmake --build "$build" --target kelpa_bench --parallel "$(nproc)" >/dev/null
    for threads in 1 2; do
        "$(find "$build" -name kelpa_bench -type f)" --hash --threads $threads --rays 16384 "$@" |
            sed "s/\$/ $compiler, $threads threads/" | tee -a "$hashes"
    done
done
scenes=$(cut -d' ' -f1 "$hashes" | sort -u | wc -l)
different=$(cut -d' ' -f1,4 "$hashes" | sort -u | wc -l)
echo "$scenes scenes, $different different hashes"
[ "$scenes" -gt 0 ] && [ "$scenes" -eq "$different" ]
