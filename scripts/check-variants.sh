#!/usr/bin/env bash
# Looks through object files that are compiled for newer processors than others for functions that
# the linker could take in place of everybody's.
#   check-variants.sh FILE.o...
set -euo pipefail

shared=$(nm --demangle "$@" | grep -E ' [WV] ' || true)
if [[ -n "$shared" ]]; then
    echo "These functions may end up in code for every processor; have them inlined:" >&2
    echo "$shared" >&2
    exit 1
fi
