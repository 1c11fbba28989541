#!/usr/bin/env bash
# Checks that clang-format 14 would change no source.
# `check-format.sh --fix` has it change them.
set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")/.."
for formatter in clang-format-14 clang-format; do
    command -v "$formatter" >/dev/null && break
done
version=$("$formatter" --version 2>/dev/null || true)
if [[ "$version" != *"version 14."* ]]; then
    echo "check-format.sh: needs clang-format 14, other versions break lines elsewhere" >&2
    exit 77
fi
mode=(--dry-run --Werror)
if [[ "${1:-}" == --fix ]]; then
    mode=(-i)
fi
# Without git, as in an unpacked archive, whatever lies in our folders.
sources=$(git ls-files '*.h' '*.cpp' 2>/dev/null || true)
if [[ -z "$sources" ]]; then
    sources=$(find bench examples kelpa pipeline python tests tool -name '*.h' -o -name '*.cpp')
fi
xargs -d '\n' "$formatter" "${mode[@]}" <<<"$sources"
