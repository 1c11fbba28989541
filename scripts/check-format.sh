#!/usr/bin/env bash
# Checks how sources look: that clang-format 14 would change none, that each begins with a line that
# says what it is for, and that no file has more than 400 lines and no function more than 60.
# `check-format.sh --fix` has clang-format change them.
set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")/.."
# Without git, as in an unpacked archive, whatever lies in our folders.
sources=$(git ls-files '*.h' '*.cpp' 2>/dev/null || true)
if [[ -z "$sources" ]]; then
    sources=$(find bench examples kelpa pipeline python tests tool -name '*.h' -o -name '*.cpp')
fi
# Lines as clang-format indents them: what a line that begins with "}" ends began with the last line
# before it that is indented as far.
xargs -d '\n' awk '
    function report(line, what) { print FILENAME ":" line ": " what; found = 1 }
    FNR == 1 { split("", begin) }
    FNR == 1 && !/^\/\/\/? [A-Za-z]/ { report(1, "does not say what the file is for") }
    FNR == 401 { report(401, "the file has more than 400 lines") }
    /^ *(\/\/|#|public:|private:|protected:)/ || !/[^ ]/ { next }
    {
        match($0, /^ */)
        for (indent in begin)
            if (indent + 0 > RLENGTH)
                delete begin[indent]
        if (/^ *}/ && RLENGTH in begin && FNR - begin[RLENGTH] >= 60 &&
            what[RLENGTH] !~ /^ *(template <[^>]*> )?(namespace|extern|class|struct|enum|union) / &&
            what[RLENGTH] !~ / = \{+$/)
            report(begin[RLENGTH], "takes " FNR - begin[RLENGTH] + 1 " lines, more than 60")
        begin[RLENGTH] = FNR
        what[RLENGTH] = $0
    }
    END { exit found }' <<<"$sources"

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
xargs -d '\n' "$formatter" "${mode[@]}" <<<"$sources"
