#!/usr/bin/env bash
# Checks who includes whom: prints every forbidden include and fails if there is one.
set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")/.."
failed=0
# forbid FOLDER PATTERN: no source below FOLDER may include what matches PATTERN.
forbid() {
    if grep -rnE "^#include \"($2)" --include='*.h' --include='*.cpp' "$1"; then
        echo "  ... $1 must not include these" >&2
        failed=1
    fi
}
forbid kelpa/foundation 'kelpa/(spheretree|particleprimitives|host)|tool/|bench/|tests/'
forbid kelpa/spheretree 'kelpa/(particleprimitives|host)|tool/|bench/|tests/'
forbid kelpa/spheretree/static 'kelpa/spheretree/motionblur'
forbid kelpa/spheretree/motionblur 'kelpa/spheretree/static'
forbid kelpa/particleprimitives 'kelpa/host|tool/|bench/|tests/'
forbid kelpa/host 'kelpa/(spheretree|particleprimitives)|tool/|bench/|tests/'
forbid python 'tool/|bench/|tests/'
exit $failed
