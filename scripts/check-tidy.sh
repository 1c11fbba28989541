#!/usr/bin/env bash
# Has clang-tidy 14 read the sources, and fails when it finds anything that .clang-tidy asks for.
#   scripts/check-tidy.sh                    all but the tests; takes half an hour on two processors
#   scripts/check-tidy.sh pipeline/scene     what lies in these folders, or these files
# It needs a configured build, `build/tidy` unless BUILD names one, and makes it where it lacks.
set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")/.."
for tidy in clang-tidy-14 clang-tidy; do
    command -v "$tidy" >/dev/null && break
done
if [[ "$("$tidy" --version 2>/dev/null)" != *"version 14."* ]]; then
    echo "check-tidy.sh: needs clang-tidy 14 (Debian's clang-tidy-14)" >&2
    exit 77
fi
build=${BUILD:-build/tidy}
[[ -f "$build/compile_commands.json" ]] ||
    cmake -S . -B "$build" -DCMAKE_EXPORT_COMPILE_COMMANDS=ON >/dev/null
[[ $# -gt 0 ]] || set -- bench examples kelpa pipeline python tool view

# Each source once, whatever it is compiled for.
sources=$(python3 - "$build/compile_commands.json" "$@" <<'PYTHON'
import json, os, sys

commands, *places = sys.argv[1:]
names = {os.path.relpath(command["file"]) for command in json.load(open(commands))}
print("\n".join(sorted(name for name in names
                       if any(name == p or name.startswith(p.rstrip("/") + "/") for p in places))))
PYTHON
)
[[ -n "$sources" ]] || { echo "check-tidy.sh: nothing is built of $*" >&2; exit 1; }
# The count of warnings in the system's headers goes to the standard error.
xargs -d '\n' -P "$(nproc)" -n 1 nice -n 10 "$tidy" -p "$build" --quiet <<<"$sources" 2>/dev/null
