#!/usr/bin/env bash
# Builds everything and runs every test. The exit code is that of the first step that fails.
set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")/.."

scripts/install-packages.sh
cmake -S . -B build/test -DCMAKE_BUILD_TYPE=RelWithDebInfo -DBUILD_TESTING=ON
cmake --build build/test --parallel "$(nproc)"
exec ctest --test-dir build/test --output-on-failure --parallel "$(nproc)"
