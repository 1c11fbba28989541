#!/usr/bin/env bash
# Checks that docs/embedding.md shows the whole of examples/ownhost.cpp: its C++ blocks, one behind
# the other with an empty line between, are that file, which the tests compile and run.
set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")/.."
diff examples/ownhost.cpp - < <(awk '
    /^```cpp$/ { if (blocks++) print ""; inside = 1; next }
    /^```$/    { inside = 0 }
    inside' docs/embedding.md) || {
    echo "  ... docs/embedding.md does not show examples/ownhost.cpp as it is" >&2
    exit 1
}
