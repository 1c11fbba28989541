#!/usr/bin/env bash
# Has clang-tidy 14 read the sources, and fails when it finds anything that .clang-tidy asks for.
#   scripts/check-tidy.sh                    all but the tests; takes an hour of one processor
#   scripts/check-tidy.sh pipeline/scene     what lies in these folders, or these files
# JOBS says how many it reads at a time, as many as there are processors unless it is set. It configures
# a build, `build/tidy` unless BUILD names one. There it keeps what was without findings, and passes
# over it until the source or a header of it changes: one that was stopped goes on where it was.
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
cmake -S . -B "$build" -DCMAKE_EXPORT_COMPILE_COMMANDS=ON >/dev/null # which sources there are now
[[ $# -gt 0 ]] || set -- bench examples kelpa mpi pipeline python tool view

exec nice -n 10 python3 - "$tidy" "$build" "${JOBS:-$(nproc)}" "$@" <<'PYTHON'
import concurrent.futures, hashlib, json, pathlib, shlex, subprocess, sys

tidy, build, jobs, *places = sys.argv[1:]
here = pathlib.Path.cwd()
clean = pathlib.Path(build, "tidy-clean")
clean.mkdir(exist_ok=True)
# Each source once, whatever it is compiled for.
commands = {}
for entry in json.loads(pathlib.Path(build, "compile_commands.json").read_text()):
    source = pathlib.Path(entry["file"])
    name = str(source.relative_to(here)) if source.is_relative_to(here) else ""
    if any(name == place or name.startswith(place.rstrip("/") + "/") for place in places):
        commands.setdefault(name, entry)
if not commands:
    sys.exit(f"check-tidy.sh: nothing is built of {' '.join(places)}")

def content(entry):
    """A digest of the question and of all files of ours that the answer hangs on."""
    words = shlex.split(entry["command"])
    del words[words.index("-o"):words.index("-o") + 2]
    question = " ".join(words)
    words[words.index("-c")] = "-MM"
    rule = subprocess.run(words, cwd=entry["directory"], capture_output=True, text=True, check=True)
    files = rule.stdout.split(":", 1)[1].replace("\\\n", " ").split()
    digest = hashlib.sha256(pathlib.Path(".clang-tidy").read_bytes() + question.encode())
    for file in files:
        digest.update(pathlib.Path(entry["directory"], file).read_bytes())
    return digest.hexdigest()

def findings(name):
    """What is found in a source, or nothing where it is clean, now or since it was read last."""
    stamp = clean / name.replace("/", "%")
    now = content(commands[name])
    if stamp.exists() and stamp.read_text() == now:
        return ""
    # The count of warnings in the system's headers goes to the standard error.
    read = subprocess.run([tidy, "-p", build, "--quiet", name], capture_output=True, text=True)
    if read.returncode == 0:
        stamp.write_text(now)
        return ""
    return read.stdout or read.stderr

found = 0
with concurrent.futures.ThreadPoolExecutor(int(jobs)) as pool:
    for text in pool.map(findings, sorted(commands)):
        print(text, end="", flush=True)
        found += text != ""
print(f"check-tidy.sh: {len(commands)} sources read, findings in {found or 'none'}")
sys.exit(found > 0)
PYTHON
