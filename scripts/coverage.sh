#!/usr/bin/env bash
# Prints how many lines of the library the tests reach, file by file, and every line they do not.
#   scripts/coverage.sh [FILTER]    a filter of Google Test; all of the library's tests without one
# Needs gcovr (apt install gcovr); counts are atomic, as workers run the same lines. Fails below 95 %.
set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")/.."
command -v gcovr >/dev/null || { echo "gcovr is not installed" >&2; exit 2; }
build=build/coverage
cmake -S . -B "$build" -DCMAKE_BUILD_TYPE=Debug -DCMAKE_CXX_COMPILER=g++ -DBUILD_TESTING=ON \
    -DKELPA_TOOL=OFF -DKELPA_BENCH=OFF -DKELPA_PYTHON=OFF \
    -DCMAKE_CXX_FLAGS="--coverage -fprofile-update=atomic -O1" >/dev/null
cmake --build "$build" --target kelpa_library_tests kelpa_service_tests --parallel "$(nproc)" >/dev/null
find "$build" -name '*.gcda' -delete
for program in kelpa_library_tests kelpa_service_tests; do
    "$build/tests/$program" --gtest_brief=1 --gtest_filter="${1:-*}"
done
gcovr --root . --filter 'kelpa/' --exclude-throw-branches --fail-under-line 95 "$build"
