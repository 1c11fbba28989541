#!/usr/bin/env bash
# Builds everything and runs every test. The exit code is that of the first step that fails.
# With --with-browser it also installs Chromium, which tests of the view's page need.
set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")/.."

scripts/install-packages.sh "$@"
cmake -S . -B build/test -DCMAKE_BUILD_TYPE=RelWithDebInfo -DBUILD_TESTING=ON
cmake --build build/test --parallel "$(nproc)"
ctest --test-dir build/test --output-on-failure --parallel "$(nproc)"

# Where clang has libFuzzer, the file readers also meet files that it thinks up.
fuzzer='extern "C" int LLVMFuzzerTestOneInput(unsigned char const*, unsigned long) { return 0; }'
if clang++ -x c++ -fsanitize=fuzzer,address -o /dev/null - <<<"$fuzzer" 2>/dev/null; then
    cmake -S . -B build/fuzz -DCMAKE_CXX_COMPILER=clang++ -DCMAKE_BUILD_TYPE=RelWithDebInfo \
        -DBUILD_TESTING=ON -DKELPA_FUZZ=ON
    cmake --build build/fuzz --target kelpa_fuzz --parallel "$(nproc)"
    ctest --test-dir build/fuzz --output-on-failure --parallel "$(nproc)" -R '^Fuzz'
fi
