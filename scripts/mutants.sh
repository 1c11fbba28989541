#!/usr/bin/env bash
# Puts small faults into a copy of the library, one at a time, and reports which of them its tests
# notice. Fails when fewer than 90 of 100 are noticed.
#   scripts/mutants.sh            all of tests/mutants.txt
#   scripts/mutants.sh 3 17       those with these numbers
# All faults are compiled at once, each behind a guard that KELPA_MUTANT=NUMBER opens, so there is
# one build, in build/mutants. The tests of each end at their first failure, or after four times the
# processor time that they take without a fault (a lock that never opens: after twenty times as long).
set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")/.."
work=$PWD/build/mutants
mkdir -p "$work"

# The copy, and the list of faults: NUMBER<tab>FILE: WHAT -> INTO WHAT.
python3 - "$work" >"$work/list" <<'PYTHON'
import pathlib, re, subprocess, sys

work, faults = pathlib.Path(sys.argv[1]), pathlib.Path("tests/mutants.txt")
names = subprocess.run(["git", "ls-files", "--cached", "--others", "--exclude-standard"],
                       capture_output=True, text=True, check=True).stdout.splitlines()
texts = {name: pathlib.Path(name).read_bytes() for name in names if pathlib.Path(name).is_file()}

def fail(line, why):
    sys.exit(f"{faults}:{line}: {why}")

def entries():
    """Line, file, code before, what changes, code behind and what it becomes, of every fault."""
    file, code = None, None
    for line, words in enumerate(faults.read_text().splitlines(), 1):
        kind, text = words[:1], words[2:].strip()
        if kind == "@":
            file = text
        elif kind == "-":
            code = re.fullmatch(r"(.*)<<<(.+)>>>(.*)", text) or fail(line, "nothing in <<< >>>")
        elif kind == "+":
            yield line, file, *code.groups(), text
        elif words and kind != "#":
            fail(line, "begins with neither @, -, + nor #")

def pattern(code):
    return r"\s*".join(re.escape(word) for word in re.split(r"\s+", code))

edits, stale = {}, []
for number, (line, file, before, part, behind, changed) in enumerate(entries(), 1):
    found = list(re.finditer(f"{pattern(before)}({pattern(part)}){pattern(behind)}",
                             texts[file].decode()))
    if len(found) != 1:
        stale.append(f"{faults}:{line}: {file} has this code {len(found)} times")
        continue
    begin, end = found[0].span(1)
    guarded = (f"if (mutant({number})) {{ {changed} }} else {{ {part} }}" if part.endswith(";")
               else f"(mutant({number}) ? ({changed}) : ({part}))")
    edits.setdefault(file, []).append((begin, end, guarded))
    print(f"{number}\t{file}: {part} -> {changed or 'nothing'}")
if stale: # the library has changed, and the list has not
    sys.exit("\n".join(stale))
for file, changes in edits.items():
    text = texts[file].decode()
    for begin, end, guarded in sorted(changes, reverse=True):
        text = text[:begin] + guarded + text[end:]
    texts[file] = text.encode()
texts["mutant.h"] = b"""#pragma once
#include <cstdlib>
#include <utility>
inline int const chosenMutant =
    std::getenv("KELPA_MUTANT") != nullptr ? std::atoi(std::getenv("KELPA_MUTANT")) : 0;
[[gnu::always_inline]] inline bool mutant(int number) { return chosenMutant == number; }
"""
for name, text in texts.items(): # written only where it changed: a second run compiles little
    to = work / "source" / name
    if not to.is_file() or to.read_bytes() != text:
        to.parent.mkdir(parents=True, exist_ok=True)
        to.write_bytes(text)
PYTHON

cmake -S "$work/source" -B "$work/build" -DCMAKE_BUILD_TYPE=Release -DKELPA_TOOL=OFF \
    -DKELPA_BENCH=OFF -DKELPA_PYTHON=OFF "-DCMAKE_CXX_FLAGS=-include $work/source/mutant.h" >/dev/null
cmake --build "$work/build" --target kelpa_library_tests kelpa_service_tests \
    --parallel "$(nproc)" >"$work/build.log" 2>&1 || { tail -n 30 "$work/build.log" >&2; exit 2; }

# test_mutant NUMBER SECONDS: what its tests say, in so many seconds of processor time.
test_mutant() {
    local program log=$work/log.$1
    for program in kelpa_service_tests kelpa_library_tests; do
        { (ulimit -t "$2" && KELPA_MUTANT=$1 timeout -k 5 $((5 * $2)) "$work/build/tests/$program" \
            --gtest_fail_fast --gtest_brief=1) >"$log" 2>&1; } 2>/dev/null && continue
        local how=$? name
        name=$(sed -nE 's/^\[  FAILED  \] ([^ ,]+).*/\1/p' "$log" | head -n 1)
        [ "$how" -lt 124 ] || name="the time limit or a signal ($how)"
        printf '%s\tnoticed\t%s\n' "$1" "${name:-an end without a word ($how)}"
        return
    done
    printf '%s\tMISSED\t\n' "$1"
}
export -f test_mutant
export work

begin=$SECONDS
spent=$(TIMEFORMAT='%U %S'; { time test_mutant 0 600 >"$work/sound"; } 2>&1)
[ "$(cat "$work/sound")" = "$(printf '0\tMISSED\t')" ] || {
    cat "$work/log.0" >&2; echo "mutants: the tests fail without a fault" >&2; exit 2; }
limit=$(awk '{ print int(4 * ($1 + $2)) + 8 }' <<<"$spent")
if [ $# -gt 0 ]; then printf '%s\n' "$@"; else cut -f1 "$work/list"; fi |
    xargs -P "$(nproc)" -I NUMBER bash -c "test_mutant NUMBER $limit" | sort -n >"$work/results"
join -t "$(printf '\t')" <(sort -k1,1 "$work/results") <(sort -k1,1 "$work/list") | sort -n |
    awk -F '\t' '{ printf "%3d %-8s %s%s\n", $1, $2, $4, $3 ? "  (" $3 ")" : "" }'
noticed=$(grep -c noticed "$work/results" || true)
all=$(wc -l <"$work/results")
echo "$noticed of $all faults noticed, $((100 * noticed / all)) %, in $((SECONDS - begin)) s"
[ $((100 * noticed)) -ge $((90 * all)) ]
